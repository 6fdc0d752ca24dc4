// The commands of the client's file browser, as each role runs them: base/test/data/commands/files.txt.

#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

} // namespace

TEST(FileSystemCommands, AnswerAndChangeFilesByTheirRole) {
    const std::filesystem::path origin = std::filesystem::current_path();
    for (const auto mode : {Machine::SERIAL_MODE, Machine::MASTER_MODE, Machine::WORKER_MODE}) {
        MachineTestAccess::playRole(mode, 2, mode == Machine::WORKER_MODE ? 1 : 0);
        const std::string root = testing::TempDir() + "files-" + std::to_string(mode);
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root + "/folder");
        std::filesystem::current_path(root);
        std::ofstream("file") << "12345";
        std::ofstream("\u00fcml\u00e4ut") << "";
        std::ifstream data(ORVEX_TEST_DATA "/commands/files.txt");
        std::string line;
        int count = 0;
        for (; std::getline(data, line); ++count) {
            std::string expected;
            if (line.find('{') != 0)
                continue;
            std::getline(data, expected);
            for (std::string other; std::getline(data, other) && !other.empty();)
                expected = mode == Machine::WORKER_MODE ? other : expected;
            Properties response;
            static_cast<void>(Controller::getSingleton().executeCommand(
                Properties(replaceAll(line, "ROOT", root)), response));
            response.remove(Error::STACK_TRACE_TAG);
            EXPECT_EQ(replaceAll(response.toString(), root, "ROOT"), expected) << line << " in mode " << mode;
        }
        EXPECT_GT(count, 30);
        std::filesystem::current_path(origin);
        std::filesystem::remove_all(root);
    }
    MachineTestAccess::startAfresh();
}
