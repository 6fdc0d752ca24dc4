#include "machine/commands/ProfileCommands.h"

#include "machine/Communicator.h"
#include "machine/CpuBinder.h"
#include "machine/Machine.h"
#include "machine/MemoryLoggerManager.h"
#include "machine/MpiCore.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/SystemMonitor.h"
#include "machine/TimeLoggerManager.h"
#include "machine/ground/MachineOptions.h"
#include "machine/reports/MemoryHistory.h"
#include "machine/reports/ProfileCalls.h"
#include "machine/reports/ProfileHosts.h"
#include "machine/reports/ProfileMemory.h"
#include "machine/reports/ProfileMessages.h"
#include "machine/reports/ProfileNumbers.h"
#include "machine/reports/ProfileSpans.h"
#include "machine/start/StartTimeline.h"

#include "kernel/BillBook.h"
#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/EventTracker.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/Server.h"
#include "platform/BatchSystem.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Time.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#ifdef __has_feature
#define ORVEX_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ORVEX_HAS_FEATURE(feature) 0
#endif

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || ORVEX_HAS_FEATURE(address_sanitizer) || \
    ORVEX_HAS_FEATURE(thread_sanitizer)
constexpr bool HAS_SANITIZER = true;
#else
constexpr bool HAS_SANITIZER = false;
#endif
#ifdef __OPTIMIZE__
constexpr bool IS_OPTIMIZED = true;
#else
constexpr bool IS_OPTIMIZED = false;
#endif
#ifdef NDEBUG
constexpr bool HAS_ASSERTIONS = false;
#else
constexpr bool HAS_ASSERTIONS = true;
#endif

/// The profile's own messages aren't counted while it lives.
class StatisticsPause {
public:
    StatisticsPause() {
        if (_wasOn)
            MpiStatisticsManager::disable(false);
    }
    ~StatisticsPause() {
        if (_wasOn)
            MpiStatisticsManager::enable(false);
    }
    StatisticsPause(const StatisticsPause&) = delete;
    StatisticsPause& operator=(const StatisticsPause&) = delete;
    bool wasOn() const { return _wasOn; }

private:
    const bool _wasOn = MpiStatisticsManager::isEnabled();
};

/// Spoils the timings of a run.
struct Warning {
    bool applies;
    const char* text;
};

std::vector<std::string> listWarnings(const Properties& document, bool countsMessages) {
    const bool logsMemory = dynamic_cast<const MemoryLoggerManager*>(
                                &EventTracker::getSingleton().getEventLoggerManager()) != nullptr;
    const Warning warnings[] = {
        {OrvexVersion::isDevelopmentVersion(), "A development version: its checks across ranks take time"},
        {!IS_OPTIMIZED, "The server was compiled without optimization"},
        {HAS_SANITIZER, "The server was compiled with a sanitizer"},
        {HAS_ASSERTIONS, "The server was compiled with assertions"},
        {countsMessages, "The statistics of messages are on: each message takes longer"},
        {Machine::getSingleton().communicationTimerEnabled(),
         "The communication timer is on: each message takes longer"},
        {logsMemory, "The memory profile is on: each event takes longer"},
    };
    std::vector<std::string> texts;
    for (const Warning& warning : warnings)
        if (warning.applies)
            texts.emplace_back(warning.text);
    if (const std::string text = ProfileHosts::warnOfOverSubscription(document); !text.empty())
        texts.push_back(text);
    return texts;
}

std::string join(const std::vector<std::string>& texts) {
    std::string line;
    for (const std::string& text : texts)
        line += (line.empty() ? "" : "; ") + text;
    return line;
}

std::string describeMpi() {
    if (Machine::isSerial())
        return {};
    const std::string version = MpiCore::getMpiVersionName();
    return MpiCore::getDistribName() + (version.empty() ? "" : " " + version);
}

const char* describeBinding(const MachineOptions& options) {
    if (!options.internalBinding)
        return "disable";
    switch (options.bindingPolicy) {
    case BANDWIDTH_BINDING:
        return "bandwidth";
    case LATENCY_BINDING:
        return "latency";
    case LEAST_LOAD_BINDING:
        return "leastload";
    }
    return "";
}

Properties describeOptions() {
    const MachineOptions& options = Machine::getOptions();
    const auto say = [](bool isOn) { return isOn ? "on" : "off"; };
    Properties told;
    told.set("binding", describeBinding(options));
    told.set("binding of threads", say(options.threadBinding));
    told.set("server thread", say(options.threaded));
    told.set("parallel files", say(options.parallelIo));
    told.set("checks across ranks",
             say(OrvexVersion::isDevelopmentVersion() && Machine::hasDevErrorChecking()));
    if (Machine::isParallel())
        told.set("largest message",
                 std::to_string(Machine::globalCommunicator().getMaxBufferSize()) + " bytes");
    told.set("batch job", Platform::findBatchJob());
    told.set("architecture", OrvexVersion::_buildArch);
    told.set("compiler", OrvexVersion::_buildEnv);
    told.set("release date", OrvexVersion::_releaseDate);
    return told;
}

/// The longest time of each step over the ranks; empty when the ranks took different steps. Collective.
std::vector<LocatedValue<double>> findLongestSteps(const std::vector<StartTimeline::Step>& steps) {
    std::vector<LocatedValue<double>> longest;
    longest.reserve(steps.size());
    for (const StartTimeline::Step& step : steps)
        longest.push_back({step.seconds, static_cast<int>(Machine::getPartitionId())});
    if (Machine::isSerial())
        return longest;
    Communicator& ranks = Machine::globalCommunicator();
    const auto count = static_cast<int>(steps.size());
    std::vector<int> range{count, -count};
    ranks.allReduce(range, Communicator::MAX);
    if (range[0] != -range[1])
        longest.clear();
    else if (count > 0)
        ranks.allReduce(longest, Communicator::MAX_LOCATION);
    return longest;
}

/// Collective.
std::vector<Properties> gatherStart() {
    const std::vector<StartTimeline::Step>& steps = StartTimeline::getSteps();
    const std::vector<LocatedValue<double>> longest = findLongestSteps(steps);
    const int digits = ProfileNumbers::countDigits(1);
    std::vector<Properties> told;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        Properties& step = told.emplace_back();
        step.set("step", steps[i].name);
        step.set("at", ProfileNumbers::round(steps[i].begin, digits));
        step.set("seconds", ProfileNumbers::round(steps[i].seconds, digits));
        if (longest.empty())
            continue;
        step.set("max", ProfileNumbers::round(longest[i].value, digits));
        step.set("maxRank", longest[i].index);
    }
    return told;
}

/// Collective.
Properties gatherSpans() {
    Platform::MemoryUse memory;
    static_cast<void>(Platform::memory().createQuery(Platform::process().getPid())->query(memory));
    return ProfileSpans::gather(CommandMeter::getSingleton().getTotal(),
                                static_cast<double>(memory.residentSize));
}

Properties gatherMemory() {
    if (!Machine::hasSystemMonitor())
        return ProfileMemory::gather(nullptr);
    MemoryHistory history;
    Machine::getSingleton().getSystemMonitor().copyHistory(history);
    return ProfileMemory::gather(&history);
}

class GetProfile : public QueryCommand {
public:
    GetProfile()
        : QueryCommand(
              {"Tells what the job has done so far, as far as its instruments were on: docs/PROFILE.md.",
               {},
               {{"format", "text", "\"orvex-profile\""},
                {"version", "unsigned", "of the format"},
                {"written", "real", "[s] since 1970"},
                {"product", "text", "the release"},
                {"session", "text", "the session file"},
                {"commandLine", "text", "that of rank 0"},
                {"warnings", "vector of text", "what spoils the timings of this run"},
                {"build", "text", "the same as one text"},
                {"mpi", "text", "the MPI library"},
                {"ranks", "unsigned", "number of ranks"},
                {"hosts", "vector of properties", "hardware and placement"},
                {"rankHost", "vector of unsigned", "for each rank the index of its host"},
                {"start", "vector of properties", "the steps of the start"},
                {"spans", "properties", "what the ranks did in commands"},
                {"events", "properties", "the calls of the time profile"},
                {"messages", "properties", "the statistics of messages"},
                {"memory", "properties", "the memory of the hosts over time"},
                {"bills", "vector of properties", "the latest commands and what they cost"},
                {"options", "properties", "settings of the job"}}}) {}
    std::string getName() const override { return "GetProfile"; }
    void execute(const Properties&, Properties& response) override {
        const StatisticsPause pause;
        Properties document;
        ProfileHosts::gather(document);
        const std::vector<Properties> start = gatherStart();
        const Properties spans = gatherSpans();
        const Properties events = ProfileCalls::gather(
            dynamic_cast<const TimeLoggerManager*>(&EventTracker::getSingleton().getEventLoggerManager()));
        const Properties messages = ProfileMessages::gather(pause.wasOn());
        const Properties memory = gatherMemory();
        if (!Machine::isSerialOrMaster())
            return;
        describeJob(document, pause.wasOn(), response);
        response.merge(document);
        response.set("start", start);
        response.set("spans", spans);
        response.set("events", events);
        response.set("messages", messages);
        response.set("memory", memory);
        response.set("bills", BillBook::getSingleton().getLatest());
        response.set("options", describeOptions());
    }

private:
    static void describeJob(const Properties& document, bool countsMessages, Properties& response) {
        const std::vector<std::string> warnings = listWarnings(document, countsMessages);
        response.set("format", "orvex-profile");
        response.set("version", 1);
        response.set("written", Platform::time().getSecondsSinceEpoch());
        response.set("product", OrvexVersion::getVersionedProductName());
        response.set("session", Server::getSingleton().getSessionName());
        response.set("commandLine", Machine::getOptions().commandLine);
        response.set("warnings", warnings);
        response.set("build", join(warnings));
        response.set("mpi", describeMpi());
        response.set("ranks", Machine::nProcesses());
    }
};

} // namespace

void registerProfileCommands(Controller& controller) {
    controller.registerCommand(new GetProfile);
}
