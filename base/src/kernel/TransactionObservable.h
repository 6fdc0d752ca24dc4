#pragma once

#include "kernel/Command.h"

/// Names the keys of the properties that stand for a command at work.
struct TransactionObservable {
    /// The key of the command's name: the same in a request, in the arguments that execute() gets, and in
    /// what the Controller's observers are told of a command.
    static constexpr const char* _cmdNameTag = Command::COMMAND_TAG;
};
