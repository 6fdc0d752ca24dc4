#pragma once

#include "kernel/profile/ProfileFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

/// Tests of profiles in a folder of their own.
class ProfileFolder : public testing::Test {
protected:
    ProfileFolder() { ProfileFile::setFolders({_folder}); }
    ~ProfileFolder() override { std::filesystem::remove_all(_folder); }

    template <std::size_t SIZE>
    static void write(char (&field)[SIZE], const char* text) {
        std::strncpy(field, text, SIZE - 1);
    }

    /// The notes of rank 1 of 3: it stands in the second of two operations, in a command, after one bill.
    static void fill(ProfileLayout::Page& page) {
        page.header.rank = 1;
        page.header.ranks = 3;
        page.header.masterPid = 77;
        write(page.header.host, "n1");
        write(page.header.masterHost, "n0");
        write(page.header.product, "Product 1");
        page.header.beganAt = 1'700'000'001'000'000'000;
        page.header.beginTick = 1'000'000;
        page.header.ticksPerSecond = 1e6;
        page.names[0].address = 11;
        write(page.names[0].text, "Communicator::allReduce");
        page.board.operations[0].begin = 2'000'000;
        page.board.operations[0].end = 2'500'000;
        page.board.operations[1].name = 11;
        page.board.operations[1].communicator = std::uint64_t(1) << 24 | 3; // global
        page.board.operations[1].size = std::uint64_t(2) << 32 | 800;
        page.board.operations[1].begin = 3'000'000;
        page.board.generation = 3;
        page.board.waitTicks = 500'000;
        page.board.bytes = 1000;
        page.depth = 1;
        write(page.commands[0].name, "Solve");
        page.commands[0].beginTick = 1'500'000;
        page.commands[0].operations = 1;
        page.bills = 1;
        write(page.bill[0].command, "GetTimes");
        page.bill[0].beganAt = 1'700'000'002'000'000'000;
        page.bill[0].wallTime = 2'000'000'000;
        page.bill[0].addedMemory = -4096;
        write(page.events[0].name, "Solver::step\x1b\xc3"); // an escape, and half a character
        page.events[0].nanoseconds = 250'000'000;
        page.events[0].openedAt = 2'900'000;
        page.header.magic = ProfileLayout::MAGIC;
    }

    static std::string makeFolder() {
        std::string name = "/dev/shm/orvex-profile-test-XXXXXX";
        return ::mkdtemp(name.data()) != nullptr ? name : std::string();
    }

    const std::string _folder = makeFolder();
};
