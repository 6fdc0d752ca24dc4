#include "parallel/harness/ParallelTest.h"
#include "parallel/harness/ParallelTestWatchdog.h"

#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// On a busy machine ranks come late to a test, which isn't the test's fault. In seconds.
constexpr double TIME_TO_MEET = 20.0;

void check(int code, const char* call) {
    if (code == OXM_MPI_SUCCESS)
        return;
    char text[OXM_MPI_MAX_ERROR_STRING] = "";
    int length = 0;
    OXM_MPI_Error_string(code, text, &length); // the text is empty if even that fails
    throw std::runtime_error(std::string(call) + ": " + text);
}
#define CHECK(call) check(call, #call)

int theRank = 0;
int theSize = 1;
std::string theDriver;

/// What a rank has to say of a test.
enum Outcome { PASSED = 0, FAILED = 1, SKIPPED = 2 };

/// The ranks' talk about the tests, on a communicator of its own.
class Conference {
public:
    Conference() {
        int group = OXM_MPI_GROUP_NULL;
        CHECK(OXM_MPI_Comm_group(OXM_MPI_COMM_WORLD, &group));
        CHECK(OXM_MPI_Comm_create(OXM_MPI_COMM_WORLD, group, &_comm));
        CHECK(OXM_MPI_Group_free(&group));
        CHECK(OXM_MPI_Comm_rank(_comm, &theRank));
        CHECK(OXM_MPI_Comm_size(_comm, &theSize));
    }

    void close() { CHECK(OXM_MPI_Comm_free(&_comm)); }

    std::vector<int> allGather(int value) const {
        std::vector<int> values(static_cast<std::size_t>(theSize));
        CHECK(OXM_MPI_Allgather(&value, 1, OXM_MPI_INT, values.data(), 1, OXM_MPI_INT, _comm));
        return values;
    }

    /// Each rank's text, on every rank.
    std::vector<std::string> allGather(const std::string& text) const {
        std::vector<std::string> texts(static_cast<std::size_t>(theSize), text);
        for (int rank = 0; rank < theSize; ++rank) {
            std::string& each = texts[static_cast<std::size_t>(rank)];
            int length = static_cast<int>(each.size());
            CHECK(OXM_MPI_Bcast(&length, 1, OXM_MPI_INT, rank, _comm));
            each.resize(static_cast<std::size_t>(length));
            CHECK(OXM_MPI_Bcast(each.data(), length, OXM_MPI_CHAR, rank, _comm));
        }
        return texts;
    }

    /// Ends the job if the ranks aren't about to do the same thing.
    void agreeOn(const std::string& step) const {
        const std::vector<int> hashes = allGather(static_cast<int>(std::hash<std::string>()(step)));
        if (std::count(hashes.begin(), hashes.end(), hashes.front()) == theSize)
            return;
        const std::vector<std::string> steps = allGather(step);
        for (std::size_t i = 0; theRank == 0 && i < steps.size(); ++i)
            std::fprintf(stderr, "[ DISAGREE ] rank %zu runs %s\n", i, steps[i].c_str());
        // The others give rank 0 the time to tell.
        CHECK(OXM_MPI_Barrier(_comm));
        std::_Exit(EXIT_FAILURE);
    }

private:
    int _comm = OXM_MPI_COMM_NULL;
};

std::string listRanks(const std::vector<int>& outcomes, int outcome) {
    std::string text;
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        if (outcomes[i] == outcome)
            text.append(text.empty() ? "" : " ").append(std::to_string(i));
    return text;
}

/// Keeps the ranks in step, and brings their failures to rank 0.
class Chairman : public testing::EmptyTestEventListener {
public:
    Chairman(const Conference& conference, ParallelTestWatchdog& watchdog, double timeLimit)
        : _conference(conference), _watchdog(watchdog), _timeLimit(timeLimit) {}

    bool hasFailed() const { return _hasFailed; }

private:
    void OnTestStart(const testing::TestInfo& test) override {
        const std::string name = std::string(test.test_suite_name()) + "." + test.name();
        _watchdog.begin("the test " + name, _timeLimit + TIME_TO_MEET);
        _watchdog.setState("waits for the other ranks to begin it");
        _conference.agreeOn(name);
        _watchdog.begin("the test " + name, _timeLimit);
    }

    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (!result.failed() || _isReporting)
            return;
        const std::string text = testing::PrintToString(result);
        const std::lock_guard lock(_mutex);
        _failures += text;
        _watchdog.addFailure(text);
    }

    void OnTestEnd(const testing::TestInfo& test) override {
        _watchdog.setState("has left it and waits for the other ranks");
        report(test.result()->Skipped() ? SKIPPED : PASSED);
    }

    void OnTestProgramEnd(const testing::UnitTest&) override {
        _watchdog.begin("the end of the tests", _timeLimit);
        _conference.agreeOn("the end of the tests");
        report(PASSED);
    }

    /// Collective. What other ranks failed in since the last report becomes a failure of rank 0.
    void report(Outcome outcome) {
        const std::vector<int> outcomes = _conference.allGather(_failures.empty() ? outcome : FAILED);
        const std::string failed = listRanks(outcomes, FAILED);
        const std::string skipped = listRanks(outcomes, SKIPPED);
        const std::string passed = listRanks(outcomes, PASSED);
        const bool isSplit = failed.empty() && !skipped.empty() && !passed.empty();
        _hasFailed |= !failed.empty() || isSplit;
        if (!failed.empty())
            showFailures(_conference.allGather(_failures), failed);
        if (isSplit && theRank == 0)
            fail("Skipped on ranks " + skipped + " and run on ranks " + passed);
        const std::lock_guard lock(_mutex);
        _failures.clear();
    }

    void showFailures(const std::vector<std::string>& failures, const std::string& ranks) {
        if (theRank != 0)
            return;
        for (std::size_t i = 1; i < failures.size(); ++i)
            if (!failures[i].empty())
                fail("Failed on rank " + std::to_string(i) + ":\n" + failures[i]);
        std::printf("[  RANKS   ] failed on ranks %s of %d\n", ranks.c_str(), theSize);
    }

    void fail(const std::string& text) {
        _isReporting = true;
        ADD_FAILURE() << text;
        _isReporting = false;
    }

    const Conference& _conference;
    ParallelTestWatchdog& _watchdog;
    double _timeLimit;
    std::mutex _mutex;
    std::string _failures;
    bool _isReporting = false;
    bool _hasFailed = false;
};

int runTests(int& argc, char** argv, ParallelTestWatchdog& watchdog, double timeLimit) {
    Conference conference;
    watchdog.setRank(theRank, theSize);
    testing::InitGoogleTest(&argc, argv);
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    if (theRank != 0) {
        delete listeners.Release(listeners.default_result_printer());
        delete listeners.Release(listeners.default_xml_generator());
    }
    auto* const chairman = new Chairman(conference, watchdog, timeLimit);
    listeners.Append(chairman); // owns it
    const bool isGood = RUN_ALL_TESTS() == 0 && !chairman->hasFailed();
    conference.close();
    return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int ParallelTest::rank() {
    return theRank;
}
int ParallelTest::size() {
    return theSize;
}
const char* ParallelTest::driver() {
    return theDriver.c_str();
}

int main(int argc, char** argv) {
    constexpr std::string_view TIME_OPTION = "--test-seconds=";
    double timeLimit = 30.0;
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]).starts_with(TIME_OPTION))
            timeLimit = std::strtod(argv[i] + TIME_OPTION.size(), nullptr);
        else if (std::string_view(argv[i]) == "-mpi" && argv[i + 1])
            theDriver = argv[i + 1];
    ParallelTestWatchdog watchdog;
    int result = EXIT_FAILURE;
    try {
        watchdog.begin("the start of the message layer", timeLimit);
        ParallelTest::startMessageLayer(argc, argv);
        result = runTests(argc, argv, watchdog, timeLimit);
        watchdog.begin("the end of the message layer", timeLimit);
        ParallelTest::stopMessageLayer();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "[  FAILED  ] rank %d of %d: %s\n", theRank, theSize, error.what());
        std::_Exit(EXIT_FAILURE);
    }
    return result;
}
