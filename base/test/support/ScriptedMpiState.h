#pragma once

#include "support/ScriptedMpi.h"

#include "mpiwrapper/MpiDriver.h"

#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// The memory of the scripted driver: its script, its handles and the calls that it saw.
class ScriptedMpiState : public ScriptedMpi {
public:
    static ScriptedMpiState& getSingleton();

    void reset() override;
    void setWorld(int rank, int size) override;
    void setClock(double now, double step) override;
    void deliver(int source, int tag, const void* data, std::size_t bytes) override;
    std::map<std::string, int> liveHandles() const override;

    /// Records a call and runs its script; `play` is the driver's own work, with a code as result or none.
    template <class Result, class... Arguments>
    int serve(const char* name, const char* argumentNames, Result (*play)(Arguments...),
              Arguments... arguments);
    double readClock();

    void setStatus(OXM_MPI_Status_struct* status, int source, int tag, std::size_t bytes);

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
    using Info = std::map<std::string, std::string>;
    struct File {
        std::string name;
        std::size_t position;
        Info info;
    };

    std::optional<Message> takeMessage(int source, int tag);
    const Message* peekMessage(int source, int tag) const;

    int worldRank = 0;
    using ScriptedMpi::bindCollisionTestDisabled;
    using ScriptedMpi::errorTexts;
    using ScriptedMpi::looksBeforeCompletion;
    using ScriptedMpi::maxBufferSize;
    using ScriptedMpi::nextIndex;
    using ScriptedMpi::processorName;
    using ScriptedMpi::supportsSharedMemory;
    std::map<int, Comm> comms;
    std::map<int, std::vector<int>> groups;
    std::map<int, std::size_t> types; ///< their extents
    std::set<int> committedTypes;
    std::map<int, OXM_MPI_User_function> ops;
    std::map<int, Request> requests;
    std::map<int, File> files;
    std::map<std::string, std::string> disk;
    std::map<int, Info> infos;
    std::vector<Message> mailbox;

    /// Handles of made objects are never used twice, so that a stale one is found out.
    int makeHandle() { return _nextHandle++; }

private:
    int takeFailure(const std::string& name);
    /// Whether a datatype of the call is none, or isn't committed.
    bool usesBadType(const ScriptedCall& call) const;
    static void clearMadeHandle(const ScriptedCall& call);
    int run(std::size_t call, const std::function<int()>& play);

    int _nextHandle = 100;
    std::optional<double> _clock;
    double _clockStep = 0.0;
};

/// Takes the arguments of a call apart.
class ScriptedCallWriter {
public:
    ScriptedCallWriter(ScriptedCall& call, const char* argumentNames, int commSize);
    ~ScriptedCallWriter() { _call._text += ")"; }
    ScriptedCallWriter(const ScriptedCallWriter&) = delete;
    ScriptedCallWriter& operator=(const ScriptedCallWriter&) = delete;

    void add(int value);
    void add(long long value);
    void add(int* value);
    void add(const int* values);
    void add(const long long* values);
    void add(const char* text);
    void add(const void* address);
    void add(OXM_MPI_User_function function);
    template <class T>
    void add(T* address) {
        addAddress(address);
    }

private:
    std::string takeName();
    void show(const std::string& name, const std::string& value);
    void addAddress(const void* address);
    template <class T>
    void addArray(const std::string& name, const T* values, int count);

    ScriptedCall& _call;
    std::string _names;
    int _commSize;
    int _position = 0;
    int _firstNumber = 0;
};

template <class Result, class... Arguments>
int ScriptedMpiState::serve(const char* name, const char* argumentNames, Result (*play)(Arguments...),
                            Arguments... arguments) {
    ScriptedCall call;
    call.name = name;
    {
        // Only calls on a communicator have arrays of its size, and it is the last of their numbers.
        int size = 0;
        [[maybe_unused]] const auto note = [&]([[maybe_unused]] auto value) {
            if constexpr (std::is_same_v<decltype(value), int>) {
                const auto comm = comms.find(value);
                size = comm == comms.end() ? 0 : comm->second.size();
            }
        };
        (note(arguments), ...);
        ScriptedCallWriter writer(call, argumentNames, size);
        (writer.add(arguments), ...);
    }
    _calls.push_back(std::move(call));
    return run(_calls.size() - 1, [&] {
        if constexpr (std::is_void_v<Result>) {
            play(arguments...);
            return OXM_MPI_SUCCESS;
        } else {
            return play(arguments...);
        }
    });
}
