#pragma once

class Command;
class Controller;

/// Registers the commands that check what a server does with its processes.
void registerTestCommands(Controller& controller);

/// Prints on the standard output of this rank that `command` is for tests.
void warnOfTestCommand(const Command& command);
