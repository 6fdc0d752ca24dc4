#pragma once

#include "support/ScriptedCallWriter.h"
#include "support/ScriptedMpi.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <numeric>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// The memory of the scripted driver: its script, its handles and the calls that it saw.
class ScriptedMpiState final : public ScriptedMpi {
public:
    ScriptedMpiState() {
        static_assert(sizeof(long) == 8 && sizeof(long double) == 16 && sizeof(wchar_t) == 4);
        // Of the datatypes that are always there, by their codes. The last are those of a value and an int.
        for (const int extent :
             {1, 1, 1, 1, 1, 2, 4, 4, 4, 8, 16, 8, 8, 2, 8, 8, 4, 8, 16, 32, 8, 16, 16, 8, 32})
            types[static_cast<int>(types.size()) + 1] = {static_cast<std::size_t>(extent), true};
        setWorld(0, 1);
    }

    void reset() override {
        const int next = _nextHandle;
        *this = ScriptedMpiState();
        _nextHandle = next;
    }
    void setWorld(int rank, int size) override {
        worldRank = rank;
        Comm world{std::vector<int>(static_cast<std::size_t>(size)), rank};
        std::iota(world.worldRanks.begin(), world.worldRanks.end(), 0);
        comms = {{OXM_MPI_COMM_WORLD, world}, {OXM_MPI_COMM_SELF, {{rank}, 0}}};
    }
    void deliver(int source, int tag, const void* data, std::size_t bytes) override {
        mailbox.push_back({source, tag, std::string(static_cast<const char*>(data), bytes)});
    }
    std::map<std::string, int> liveHandles() const override {
        std::map<std::string, std::size_t> counts{{"comm", comms.size() - 2},
                                                  {"group", groups.size() - 1},
                                                  {"datatype", types.size() - OXM_MPI_LONG_DOUBLE_INT},
                                                  {"op", ops.size()},
                                                  {"request", requests.size()},
                                                  {"file", files.size()},
                                                  {"info", infos.size()}};
        std::erase_if(counts, [](const auto& each) { return each.second == 0; });
        return {counts.begin(), counts.end()};
    }

    /// Records a call and runs its script; `play` is the driver's own work.
    template <class Result, class... Arguments>
    int serve(const char* name, const char* argumentNames, Result (*play)(Arguments...),
              Arguments... arguments) {
        // Only calls on a communicator have arrays of its size, and it is the last of their numbers.
        int comm = 0;
        [[maybe_unused]] const auto note = [&]([[maybe_unused]] auto value) {
            if constexpr (std::is_same_v<decltype(value), int>)
                comm = value;
        };
        (note(arguments), ...);
        ScriptedCall call;
        call.name = name;
        ScriptedCallWriter writer(call, argumentNames, comms.contains(comm) ? comms[comm].size() : 0);
        (writer.add(arguments), ...);
        writer.end();
        _calls.push_back(call);
        return run(call, [&] {
            if constexpr (std::is_void_v<Result>)
                return play(arguments...), OXM_MPI_SUCCESS;
            else
                return play(arguments...);
        });
    }
    double readClock() {
        ++_clockReadings;
        if (!clock)
            return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        return std::exchange(*clock, *clock + clockStep);
    }

    void setStatus(OXM_MPI_Status_struct* status, int source, int tag, std::size_t bytes) {
        if (!status)
            return;
        *status = {source, tag, OXM_MPI_SUCCESS, {}};
        std::memcpy(status->reserved, &bytes, sizeof bytes);
        if (!statuses.empty()) {
            *status = statuses.front();
            statuses.pop_front();
        }
    }

    struct Message {
        int source;
        int tag;
        std::string bytes;
    };
    struct Comm {
        std::vector<int> worldRanks;
        int rank;
        int size() const { return static_cast<int>(worldRanks.size()); }
    };
    struct Request {
        bool isReceive = false;
        bool isPersistent = false;
        bool isActive = true;
        int looks = 0;
        void* buffer = nullptr;
        std::size_t capacity = 0;
        int partner = 0;
        int tag = 0;
    };
    struct Type {
        std::size_t extent = 0;
        bool isCommitted = false;
    };

    auto findMessage(int source, int tag) {
        return std::ranges::find_if(mailbox, [=](const Message& message) {
            return (source == OXM_MPI_ANY_SOURCE || message.source == source) &&
                   (tag == OXM_MPI_ANY_TAG || message.tag == tag);
        });
    }

    int worldRank = 0;
    std::map<int, Comm> comms;
    std::map<int, std::vector<int>> groups{{OXM_MPI_GROUP_EMPTY, {}}};
    std::map<int, Type> types;
    std::map<int, Request> requests;
    std::map<int, bool> ops, files, infos; ///< nothing is known of them
    std::vector<Message> mailbox;

    /// Handles of made objects are never used twice, so that a stale one is found out.
    int makeHandle() { return _nextHandle++; }

private:
    int takeFailure(const std::string& name) {
        int code = OXM_MPI_SUCCESS;
        for (Failure& failure : failures)
            if ((failure.name.empty() || failure.name == name) && --failure.nth == 0)
                code = failure.code;
        return code;
    }
    /// Whether a datatype of the call is none, or isn't committed.
    bool usesBadType(const ScriptedCall& call) {
        if (call.name.starts_with("Type_") || !call.takes("datatype"))
            return false;
        const auto type = types.find(static_cast<int>(call.get("datatype")));
        return type == types.end() || !type->second.isCommitted;
    }
    int run(const ScriptedCall& call, const std::function<int()>& play) {
        int result = takeFailure(call.name);
        if (result == OXM_MPI_SUCCESS || result == OXM_MPI_ERR_IN_STATUS) {
            const Action action = actions[call.name]; // a copy, since it may change the script
            const int own = action ? action(call) : usesBadType(call) ? OXM_MPI_ERR_TYPE : play();
            result = result == OXM_MPI_SUCCESS ? own : result;
        }
        // As the drivers of real MPIs do it: a call that should have made an object leaves a null handle.
        for (const char* name :
             {"group", "newComm", "newGroup", "request", "newType", "op", "file", "info", "newInfo"})
            if (result != OXM_MPI_SUCCESS && call.addresses.contains(name) && !call.takes(name))
                *static_cast<int*>(call.addresses.at(name)) = 0;
        return result;
    }

    int _nextHandle = 100;
};
