#pragma once

#include "machine/CommandController.h"
#include "machine/Machine.h"

#include "kernel/Command.h"
#include "kernel/Properties.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

/// Runs commands on all ranks of a job.
class ParallelCommands : public testing::Test {
protected:
    /// A job of more ranks than processors waits long for each command.
    static bool isSmallJob() { return Machine::nProcesses() <= 4; }
    /// The master plays the server, the workers serve until it releases them.
    static void inCommandLoop(const std::function<void()>& serve) {
        if (!Machine::isMaster()) {
            CommandController::getSingleton().processCommands();
            return;
        }
        serve();
        CommandController::getSingleton().releaseWorkers();
    }

    static Properties run(const std::string& name, const Properties& args = Properties()) {
        Properties command = args;
        command.set(Command::COMMAND_TAG, name);
        Properties response;
        static_cast<void>(CommandController::getSingleton().masterExecuteCommand(command, response));
        return response;
    }
    /// With `ranks` among the arguments; ranks that this job doesn't have are played by its last one.
    static Properties run(const std::string& name, std::vector<unsigned> ranks,
                          Properties args = Properties()) {
        for (unsigned& rank : ranks)
            rank = std::min(rank, Machine::nProcesses() - 1);
        args.set("ranks", ranks);
        return run(name, args);
    }
};
