#include "support/ScriptedMpiState.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <numeric>

namespace {

/// Of the datatypes that are always there, by their codes; 0 is none. The last are those of a value and an
/// int.
constexpr std::size_t FIXED_EXTENTS[] = {0,
                                         sizeof(bool),
                                         1,
                                         1,
                                         1,
                                         1,
                                         sizeof(short),
                                         sizeof(unsigned),
                                         sizeof(int),
                                         sizeof(float),
                                         sizeof(double),
                                         sizeof(long double),
                                         8,
                                         8,
                                         sizeof(short),
                                         sizeof(long),
                                         sizeof(long),
                                         sizeof(wchar_t),
                                         2 * sizeof(float),
                                         2 * sizeof(double),
                                         2 * sizeof(long double),
                                         8,
                                         16,
                                         16,
                                         8,
                                         32};
static_assert(std::size(FIXED_EXTENTS) == OXM_MPI_LONG_DOUBLE_INT + 1);

bool matches(const ScriptedMpiState::Message& message, int source, int tag) {
    return (source == OXM_MPI_ANY_SOURCE || message.source == source) &&
           (tag == OXM_MPI_ANY_TAG || message.tag == tag);
}

} // namespace

ScriptedMpiState& ScriptedMpiState::getSingleton() {
    static ScriptedMpiState state;
    return state;
}

void ScriptedMpiState::reset() {
    processorName = "scripted-host";
    maxBufferSize = 0x7FFFFFFF;
    supportsSharedMemory = true;
    bindCollisionTestDisabled = 0;
    looksBeforeCompletion = 0;
    nextIndex.reset();
    errorTexts.clear();
    groups = {{OXM_MPI_GROUP_EMPTY, {}}};
    types.clear();
    committedTypes.clear();
    for (std::size_t i = 1; i < std::size(FIXED_EXTENTS); ++i)
        types[*committedTypes.insert(static_cast<int>(i)).first] = FIXED_EXTENTS[i];
    ops.clear();
    requests.clear();
    files.clear();
    disk.clear();
    infos.clear();
    mailbox.clear();
    _failures.clear();
    _actions.clear();
    _calls.clear();
    _statuses.clear();
    _clockReadings = 0;
    _clock.reset();
    setWorld(0, 1);
}

void ScriptedMpiState::setWorld(int rank, int size) {
    worldRank = rank;
    Comm world{std::vector<int>(static_cast<std::size_t>(size)), rank};
    std::iota(world.worldRanks.begin(), world.worldRanks.end(), 0);
    comms = {{OXM_MPI_COMM_WORLD, world}, {OXM_MPI_COMM_SELF, {{rank}, 0}}};
}

void ScriptedMpiState::deliver(int source, int tag, const void* data, std::size_t bytes) {
    mailbox.push_back({source, tag, std::string(static_cast<const char*>(data), bytes)});
}

void ScriptedMpiState::setClock(double now, double step) {
    _clock = now;
    _clockStep = step;
}

double ScriptedMpiState::readClock() {
    ++_clockReadings;
    if (!_clock)
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    const double now = *_clock;
    *_clock += _clockStep;
    return now;
}

std::map<std::string, int> ScriptedMpiState::liveHandles() const {
    const std::pair<const char*, std::size_t> counts[] = {
        {"comm", comms.size() - 2},
        {"group", groups.size() - 1},
        {"datatype", types.size() - std::size(FIXED_EXTENTS) + 1},
        {"op", ops.size()},
        {"request", requests.size()},
        {"file", files.size()},
        {"info", infos.size()},
    };
    std::map<std::string, int> result;
    for (const auto& [kind, count] : counts)
        if (count)
            result[kind] = static_cast<int>(count);
    return result;
}

const ScriptedMpiState::Message* ScriptedMpiState::peekMessage(int source, int tag) const {
    const auto found = std::find_if(mailbox.begin(), mailbox.end(),
                                    [=](const Message& message) { return matches(message, source, tag); });
    return found == mailbox.end() ? nullptr : &*found;
}

std::optional<ScriptedMpiState::Message> ScriptedMpiState::takeMessage(int source, int tag) {
    const Message* const found = peekMessage(source, tag);
    if (!found)
        return std::nullopt;
    Message message = *found;
    mailbox.erase(mailbox.begin() + (found - mailbox.data()));
    return message;
}

void ScriptedMpiState::setStatus(OXM_MPI_Status_struct* status, int source, int tag, std::size_t bytes) {
    if (!status)
        return;
    if (!_statuses.empty()) {
        *status = _statuses.front();
        _statuses.pop_front();
        return;
    }
    *status = {source, tag, OXM_MPI_SUCCESS, {}};
    std::memcpy(status->reserved, &bytes, sizeof bytes);
}

int ScriptedMpiState::takeFailure(const std::string& name) {
    int code = OXM_MPI_SUCCESS;
    for (Failure& failure : _failures)
        if ((failure.name.empty() || failure.name == name) && --failure.nth == 0)
            code = failure.code;
    return code;
}

bool ScriptedMpiState::usesBadType(const ScriptedCall& call) const {
    return !call.name.starts_with("Type_") && std::ranges::any_of(call.numbers, [&](const auto& each) {
        return each.first == "datatype" && !committedTypes.contains(static_cast<int>(each.second));
    });
}

/// As the drivers of real MPIs do it: a call that should have made an object leaves a null handle behind.
void ScriptedMpiState::clearMadeHandle(const ScriptedCall& call) {
    static const std::set<std::string> made{"group", "newComm", "newGroup", "request", "newType",
                                            "op",    "file",    "info",     "newInfo"};
    for (const auto& [name, address] : call.addresses)
        if (made.contains(name) && !call.takes(name))
            *static_cast<int*>(address) = 0;
}

int ScriptedMpiState::run(std::size_t call, const std::function<int()>& play) {
    const std::string name = _calls[call].name;
    int result = takeFailure(name);
    if (result == OXM_MPI_SUCCESS || result == OXM_MPI_ERR_IN_STATUS) {
        const auto action = _actions.find(name);
        // Copies, since an action may itself call, or change the script.
        int own = OXM_MPI_SUCCESS;
        if (action != _actions.end() && action->second)
            own = Action(action->second)(ScriptedCall(_calls[call]));
        else
            own = usesBadType(_calls[call]) ? OXM_MPI_ERR_TYPE : play();
        result = result == OXM_MPI_SUCCESS ? own : result;
    }
    if (call < _calls.size() && result != OXM_MPI_SUCCESS)
        clearMadeHandle(_calls[call]);
    return result;
}

ScriptedCallWriter::ScriptedCallWriter(ScriptedCall& call, const char* argumentNames, int commSize)
    : _call(call), _names(argumentNames), _commSize(commSize) {
    _names = _names.substr(1, _names.size() - 2); // without the parentheses
    _call._text = call.name + "(";
}

std::string ScriptedCallWriter::takeName() {
    const std::size_t end = std::min(_names.find(", "), _names.size());
    const std::string name = _names.substr(0, end);
    _names.erase(0, end + 2 > _names.size() ? _names.size() : end + 2);
    ++_position;
    return name;
}

void ScriptedCallWriter::show(const std::string& name, const std::string& value) {
    _call._text += (_call._text.back() == '(' ? "" : ", ") + name + "=" + value;
}

void ScriptedCallWriter::add(long long value) {
    const std::string name = takeName();
    _call.numbers.emplace_back(name, value);
    show(name, std::to_string(value));
}

void ScriptedCallWriter::add(int value) {
    if (_position < 2)
        _firstNumber = value; // the count of the arrays of calls that aren't on a communicator
    add(static_cast<long long>(value));
}

template <class T>
void ScriptedCallWriter::addArray(const std::string& name, const T* values, int count) {
    _call.addresses[name] = const_cast<T*>(values);
    if (!values) {
        show(name, "null");
        return;
    }
    std::string text = "[";
    for (int i = 0; i < count; ++i) {
        _call.arrays[name].push_back(values[i]);
        text += (i ? " " : "") + std::to_string(values[i]);
    }
    show(name, text + "]");
}

void ScriptedCallWriter::add(int* value) {
    const bool isFirst = _position == 0;
    const std::string name = takeName();
    _call.addresses[name] = value;
    constexpr const char* OUTPUTS[] = {"newInfo", "supported", "disable", "argc"};
    if (name == "requests") {
        addArray(name, value, _firstNumber);
    } else if (isFirst && value &&
               std::find(std::begin(OUTPUTS), std::end(OUTPUTS), name) == std::end(OUTPUTS)) {
        _call.numbers.emplace_back(name, *value);
        show(name, std::to_string(*value));
    }
}

void ScriptedCallWriter::add(const int* values) {
    const std::string name = takeName();
    const bool isByRank = name.ends_with("Counts") || name.ends_with("isplacements");
    addArray(name, values, isByRank ? _commSize : _firstNumber);
}

void ScriptedCallWriter::add(const long long* values) {
    addArray(takeName(), values, _firstNumber);
}

void ScriptedCallWriter::add(const char* text) {
    const std::string name = takeName();
    _call.texts[name] = text ? text : "";
    show(name, "\"" + _call.texts[name] + "\"");
}

void ScriptedCallWriter::add(const void* address) {
    addAddress(address);
}

void ScriptedCallWriter::add(OXM_MPI_User_function function) {
    addAddress(reinterpret_cast<const void*>(function));
}

void ScriptedCallWriter::addAddress(const void* address) {
    const std::string name = takeName();
    _call.addresses[name] = const_cast<void*>(address);
    if (!name.ends_with("uffer"))
        return;
    if (!address)
        show(name, "null");
    else if (address == OXM_MPI_IN_PLACE)
        show(name, "IN_PLACE");
}
