#pragma once

#include "machine/Communicator.h"
#include "machine/GlobalFloatingPointExceptionStatus.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"
#include "machine/ParameterInitialValues.h"
#include "machine/ground/CommandLine.h"
#include "machine/ground/MachineOptions.h"
#include "machine/hybrid/HostMeeting.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/Properties.h"
#include "kernel/SignalHandler.h"

#include <string>
#include <utility>
#include <vector>

/// Lets tests of the machine do what a program can't: play a role, run one step of main(), start afresh.
class MachineTestAccess {
public:
    /// A process that hasn't entered Machine::main() yet.
    static void startAfresh() {
        delete Machine::_singleton;
        Machine::_ground = {};
        Machine::_options = {};
        ParameterInitialValues::reset();
        FpeAgnosticMode::deactivate();
        SignalHandler::setCatchFpeSignals(false);
    }

    static void playRole(Machine::SerialParallelMode mode, unsigned nProcesses, unsigned rank) {
        Machine::_ground.mode = mode;
        Machine::_ground.size = nProcesses;
        Machine::_ground.rank = rank;
    }

    static MachineOptions& options() { return Machine::_options; }
    static void setExecutableName(const std::string& name) { Machine::_ground.executableName = name; }
    /// As the Controller does it when a signal interrupts the code.
    static void tellSignalRaised() {
        Properties signal;
        Machine::getSingleton()._signalRaisedObserver.update(signal);
    }
    static AssertNoFpeAccessKey assertNoFpeKey() { return {}; }

    static bool getDevErrorChecking() { return Machine::_ground.devErrorChecking; }

    /// The steps of main(). The words follow the program's name.
    static void startCommunicators(std::vector<std::string> words, CommandLine::Consumed& consumed) {
        Line line(words);
        Machine::getSingleton().startCommunicators(line.argc, &line.argv, consumed);
    }
    static void parseCommonArgvs(std::vector<std::string> words, CommandLine::Consumed& consumed) {
        Line line(words);
        Machine::parseCommonArgvs(line.argc, line.argv, consumed);
    }
    static void scanForDesignFlags(std::vector<std::string> words) {
        Line line(words);
        Machine::scanForDesignFlags(line.argc, line.argv);
    }
    static void runRole(std::vector<std::string> words) {
        Line line(words);
        CommandLine::Consumed consumed;
        Machine::getSingleton().runRole(line.argc, line.argv, consumed);
    }
    static void testOverSubscription() { Machine::getSingleton().testOverSubscription(); }
    static void conformProcessAffinityToMainThreadAffinity() {
        Machine::getSingleton().conformProcessAffinityToMainThreadAffinity();
    }
    static void warnOfMixedVectorization() { Machine::getSingleton().warnOfMixedVectorization(); }
    static void buildShmemCommunicators() { Machine::getSingleton().buildShmemCommunicators(); }
    static void buildScopeCommunicator(Machine::ShmemScope scope, const std::vector<unsigned>& indices) {
        Machine::getSingleton().buildScopeCommunicator(scope, indices);
    }
    static void makeGlobalCommunicator() {
        Machine::getSingleton()._globalComm = std::make_unique<Communicator>();
        Machine::_ground.global = Machine::getSingleton()._globalComm.get();
    }
    static void dropGlobalCommunicator() {
        Machine::_ground.global = nullptr;
        Machine::getSingleton()._globalComm.reset();
    }
    static void startHostMeeting() { Machine::getSingleton()._hostMeeting = std::make_unique<HostMeeting>(); }
    static void stopHostMeeting() { Machine::getSingleton()._hostMeeting.reset(); }
    static void dropSharedMemCommunicators() {
        stopHostMeeting();
        Machine::_ground.shmem.fill(nullptr);
        Machine::_ground.sparse.fill(nullptr);
        for (std::size_t scope = 0; scope < Machine::NUMBER_SHMEM_SCOPES; ++scope) {
            Machine::getSingleton()._shmemComm[scope].reset();
            Machine::getSingleton()._sparseComm[scope].reset();
        }
    }
    /// The machine on `host`, which stays the caller's. @return the host that it was on
    static const MachineHost* swapHost(const MachineHost* host) {
        return std::exchange(Machine::_ground.host, host);
    }

private:
    /// The words as a program gets them: the name first, null behind the last.
    struct Line {
        explicit Line(std::vector<std::string>& words) {
            pointers.push_back(name.data());
            for (std::string& word : words)
                pointers.push_back(word.data());
            argc = static_cast<int>(pointers.size());
            pointers.push_back(nullptr);
            argv = pointers.data();
        }
        std::string name = "orvexsim";
        std::vector<char*> pointers;
        int argc;
        char** argv;
    };
};
