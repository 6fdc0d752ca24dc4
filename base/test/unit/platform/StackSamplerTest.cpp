#include "platform/StackSampler.h"

#include "platform/ThreadState.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

using Platform::StackSampler;
using Platform::ThreadState;

namespace {

// Builtins, since a stack names the innermost inlined function, which std::atomic would be.
bool goOn = false;
bool isInside = false; ///< the main thread in its work
unsigned long sink = 0;
void tell(bool on) {
    __atomic_store_n(&goOn, on, __ATOMIC_RELAXED);
}

[[gnu::noinline]] void computeUntilTold() {
    __atomic_store_n(&isInside, true, __ATOMIC_RELAXED);
    while (__atomic_load_n(&goOn, __ATOMIC_RELAXED))
        __atomic_fetch_add(&sink, 1, __ATOMIC_RELAXED);
}
[[gnu::noinline]] void throwUntilTold() {
    __atomic_store_n(&isInside, true, __ATOMIC_RELAXED);
    while (__atomic_load_n(&goOn, __ATOMIC_RELAXED)) {
        try {
            throw std::runtime_error("again");
        } catch (const std::runtime_error&) {
            __atomic_fetch_add(&sink, 1, __ATOMIC_RELAXED);
        }
    }
}
[[gnu::noinline]] void sleepUntilTold() {
    __atomic_store_n(&isInside, true, __ATOMIC_RELAXED);
    while (__atomic_load_n(&goOn, __ATOMIC_RELAXED)) {
        const timespec moment{0, 1'000'000};
        ::nanosleep(&moment, nullptr);
    }
}
template <class T>
struct Deep {
    [[gnu::noinline]] static void callUntilTold() {
        computeUntilTold();
        __atomic_fetch_add(&sink, sizeof(T), __ATOMIC_RELAXED);
    }
};

struct Answer {
    std::vector<std::string> frames;
    std::string whyNot;
};

/// The main thread does `work`, another one takes its stack meanwhile.
Answer sampleDuring(void (*work)(), std::size_t maxFrames = 64) {
    Answer answer;
    tell(true);
    __atomic_store_n(&isInside, false, __ATOMIC_RELAXED);
    std::thread asker([&] {
        while (!__atomic_load_n(&isInside, __ATOMIC_RELAXED))
            std::this_thread::yield();
        answer.frames = StackSampler::sample(maxFrames, &answer.whyNot);
        tell(false);
    });
    work();
    asker.join();
    return answer;
}

bool names(const Answer& answer, const std::string& function) {
    return std::ranges::any_of(
        answer.frames, [&](const std::string& frame) { return frame.find(function) != std::string::npos; });
}

class Sampler : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(StackSampler::install()); }
    void TearDown() override { StackSampler::uninstall(); }
};

/// A child that does `work` and never comes back, until the test ends it.
class Child {
public:
    explicit Child(void (*work)()) : _pid(::fork()) {
        if (_pid == 0) {
            work();
            for (;;)
                ::pause();
        }
    }
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int pid() const { return _pid; }
    void end() {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
        _pid = 0;
    }
    /// Whether the system tells `state` within some seconds.
    bool comesTo(ThreadState::State state) const {
        for (int i = 0; i < 500; ++i) {
            if (ThreadState::look(_pid, _pid, 0, 0.01).state == state)
                return true;
        }
        return false;
    }

private:
    int _pid;
};

} // namespace

TEST_F(Sampler, NamesTheFunctionsOfTheMainThreadWhateverItDoes) {
    const std::pair<void (*)(), const char*> rows[] = {
        {computeUntilTold, "computeUntilTold"},
        {throwUntilTold, "throwUntilTold"},
        {sleepUntilTold, "sleepUntilTold"},
        {Deep<std::vector<int>>::callUntilTold, "Deep<>::callUntilTold"},
    };
    for (const auto& [work, name] : rows) {
        const Answer answer = sampleDuring(work);
        EXPECT_TRUE(names(answer, name)) << name << ": " << testing::PrintToString(answer.frames);
        EXPECT_TRUE(names(answer, "main")) << name;
        EXPECT_FALSE(names(answer, "onQuestion")) << name;
        EXPECT_EQ(answer.whyNot, "");
    }
}

TEST_F(Sampler, BeginsWithTheInnermostFrameAndKeepsToTheNumberAskedFor) {
    const Answer answer = sampleDuring(computeUntilTold, 1);
    ASSERT_EQ(answer.frames.size(), 1u);
    // A sanitizer calls the handler from a function of its own.
    EXPECT_TRUE(names(answer, "computeUntilTold") || names(answer, "__tsan")) << answer.frames.front();
}

TEST_F(Sampler, TellsWhyThereIsNoStack) {
    std::string reason;
    EXPECT_TRUE(StackSampler::sample(10, &reason).empty());
    EXPECT_EQ(reason, "the main thread can't ask itself");
    {
        const StackSampler::FaultScope fault;
        EXPECT_EQ(sampleDuring(computeUntilTold).whyNot, "the process handles a fault");
    }
    // A thread that blocks the signal answers a later question, and not this one.
    sigset_t set;
    sigset_t before;
    ::sigemptyset(&set);
    ::sigaddset(&set, StackSampler::getSignal());
    ::pthread_sigmask(SIG_BLOCK, &set, &before);
    EXPECT_EQ(sampleDuring(computeUntilTold).whyNot.find("the main thread doesn't answer"), 0u);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(names(sampleDuring(computeUntilTold), "computeUntilTold"));
    StackSampler::uninstall();
    EXPECT_EQ(sampleDuring(computeUntilTold).whyNot, "no signal is installed for it");
}

TEST(SamplerSignal, IsOneThatNobodyHasTaken) {
    ASSERT_TRUE(StackSampler::install());
    const int first = StackSampler::getSignal();
    StackSampler::uninstall();
    struct sigaction taken {};
    struct sigaction before {};
    taken.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(first, &taken, &before), 0);
    ASSERT_TRUE(StackSampler::install());
    EXPECT_NE(StackSampler::getSignal(), first);
    EXPECT_TRUE(names(sampleDuring(computeUntilTold), "computeUntilTold"));
    StackSampler::uninstall();
    ::sigaction(first, &before, nullptr);
    EXPECT_EQ(StackSampler::getSignal(), 0);
}

TEST_F(Sampler, IgnoresItsSignalFromAnotherSender) {
    ASSERT_EQ(::kill(::getpid(), StackSampler::getSignal()), 0);
    EXPECT_TRUE(names(sampleDuring(computeUntilTold), "computeUntilTold"));
}

TEST(ThreadStates, TellAProcessThatRunsSleepsIsStoppedOrDead) {
    Child runner([] {
        for (;;)
            __atomic_fetch_add(&sink, 1, __ATOMIC_RELAXED);
    });
    Child sleeper([] {});
    const unsigned long long stamp = ThreadState::getStartStamp(sleeper.pid());
    EXPECT_NE(stamp, 0u);
    EXPECT_TRUE(runner.comesTo(ThreadState::RUNS));
    EXPECT_GT(ThreadState::look(runner.pid(), runner.pid(), 0, 0.5).processorShare, 0.01);
    EXPECT_TRUE(sleeper.comesTo(ThreadState::SLEEPS));
    EXPECT_LT(ThreadState::look(sleeper.pid(), sleeper.pid(), stamp, 0.1).processorShare, 0.5);
    ASSERT_EQ(::kill(sleeper.pid(), SIGSTOP), 0);
    EXPECT_TRUE(sleeper.comesTo(ThreadState::STOPPED));
    EXPECT_EQ(ThreadState::look(sleeper.pid(), sleeper.pid(), stamp + 1, 0.0).state, ThreadState::DEAD)
        << "another process with that number";
    const int pid = sleeper.pid();
    ::kill(pid, SIGKILL);
    EXPECT_TRUE(sleeper.comesTo(ThreadState::DEAD)) << "nobody has waited for it yet";
    sleeper.end();
    EXPECT_EQ(ThreadState::look(pid, pid, stamp, 0.0).state, ThreadState::DEAD);
    EXPECT_EQ(ThreadState::getStartStamp(pid), 0u);
}

TEST(ThreadStates, TellAProcessThatADebuggerHolds) {
    const Child traced([] {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
    });
    EXPECT_TRUE(traced.comesTo(ThreadState::TRACED));
}

TEST(ThreadStates, HaveNames) {
    const std::pair<ThreadState::State, std::string> rows[] = {
        {ThreadState::RUNS, "runs"},       {ThreadState::SLEEPS, "sleeps"},
        {ThreadState::STOPPED, "stopped"}, {ThreadState::TRACED, "traced"},
        {ThreadState::DEAD, "dead"},       {ThreadState::DISK, "waits for a device"}};
    for (const auto& [state, name] : rows)
        EXPECT_EQ(ThreadState::nameOf(state), name);
}
