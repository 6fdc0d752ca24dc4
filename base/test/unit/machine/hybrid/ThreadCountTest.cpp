// Thread counts of the runtimes and of mathematical libraries that come into the process, and their failures.

#include "machine/ThreadCount.h"
#include "machine/ThreadUtility.h"

#include "kernel/ThreadParallelContext.h"

#include "unit/machine/Failures.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <omp.h>
#include <tbb/parallel_for.h>

#include <atomic>
#include <optional>

namespace {

/// Inside a hybrid context.
class ThreadCounts : public testing::Test {
protected:
    void SetUp() override {
        ThreadParallelContext::_threadParallelContext = 1;
        ThreadCount::setThreadCountsToOne(ThreadCount::OPENMP, ThreadCount::MKL | ThreadCount::MATH_OPENMP);
    }
    void TearDown() override { ThreadParallelContext::_threadParallelContext = 0; }
};

/// A library of which only the test has the symbols; stays in the process.
template <class Count>
class Library {
public:
    Library(const char* path, const char* get, const char* set)
        : _handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)), _get(dlsym(_handle, get)), _set(dlsym(_handle, set)) {
        EXPECT_NE(_set, nullptr) << path;
    }
    Count get() const { return reinterpret_cast<Count (*)()>(_get)(); }
    void set(Count count) const { reinterpret_cast<void (*)(Count)>(_set)(count); }

private:
    void* _handle;
    void* _get;
    void* _set;
};

TEST_F(ThreadCounts, LibrariesFollowAScopeAndAreAsBefore) {
    const Library<int> openBlas(ORVEX_FAKE_OPENBLAS, "openblas_get_num_threads64_",
                                "openblas_set_num_threads64_");
    const Library<long> blis(ORVEX_FAKE_BLIS, "bli_thread_get_num_threads", "bli_thread_set_num_threads");
    openBlas.set(5);
    {
        const ThreadCount::ScopedInitializer scope(3, 3, 4);
        EXPECT_EQ(openBlas.get(), 4);
        EXPECT_EQ(blis.get(), 4);
        EXPECT_EQ(omp_get_max_threads(), 4);
        // One that comes now is set by the end of the scope, or by the next one.
        const Library<int> mkl(ORVEX_FAKE_MKL, "mkl_serv_get_max_threads", "mkl_serv_set_num_threads");
        EXPECT_EQ(mkl.get(), 9);
    }
    const Library<int> mkl(ORVEX_FAKE_MKL, "mkl_serv_get_max_threads", "mkl_serv_set_num_threads");
    EXPECT_EQ(openBlas.get(), 5);
    EXPECT_EQ(blis.get(), -1); // nobody has set it
    EXPECT_EQ(mkl.get(), 1);
    EXPECT_EQ(omp_get_max_threads(), 1);
    {
        const ThreadCount::ScopedInitializer scope(1, 1, 3);
        EXPECT_EQ(mkl.get(), 3);
        EXPECT_EQ(omp_get_max_threads(), 1);
    }
    ThreadCount::setThreadCountsToOne(0, ThreadCount::MKL);
    EXPECT_EQ(openBlas.get() + blis.get() + mkl.get(), 3);
}

TEST_F(ThreadCounts, AScopeRefusesWhatItCantDo) {
    const std::string file = "ThreadCount.cpp";
    std::optional<ThreadCount::ScopedInitializer> scope;
    expectAssertion([] { ThreadCount::setThreadCountsToOne(1, 3); },
                    "TBB must not be initialized here. TBB thread counts need to be dealt with locally.",
                    "false", file);
    expectAssertion([&] { scope.emplace(3, 3, 0); }, "Invalid number of threads.", "numThreads > 0u", file);
    scope.emplace(3, 3, 2);
    expectAssertion([] { const ThreadCount::ScopedInitializer second(3, 3, 3); },
                    "Instances of ThreadCount::ScopedInitializer must not be nested!", "!_scopeOpen", file);
    EXPECT_EQ(omp_get_max_threads(), 2);
    scope.reset();
    ThreadParallelContext::_threadParallelContext = 0;
    expectAssertion([&] { scope.emplace(3, 3, 2); },
                    "ThreadCount::ScopedInitializer can only be used in hybrid MPI/thread contexts.",
                    "ThreadParallelContext::_threadParallelContext", file);
    expectAssertion([] { ThreadUtility::forEach(1, [](std::size_t) {}); },
                    "Usage of ThreadUtility outside of hybrid parallelism mode is locked out!",
                    "ThreadParallelContext::_threadParallelContext", "ThreadUtility.cpp");
    EXPECT_EQ(omp_get_max_threads(), 1);
}

TEST_F(ThreadCounts, ALoopVisitsEachIndexOnceAndPassesErrorsOn) {
    const ThreadCount::ScopedInitializer scope(ThreadCount::TBB, 0, 3);
    std::array<std::atomic<int>, 1000> visits{};
    ThreadCount::run([&] { ThreadUtility::forEach(visits.size(), [&](std::size_t i) { ++visits[i]; }); });
    for (const std::atomic<int>& visit : visits)
        EXPECT_EQ(visit, 1);
    EXPECT_EQ(messageOf<InputError>([] {
                  ThreadCount::run([] {
                      ThreadUtility::forEach(9, [](std::size_t i) {
                          if (i == 7)
                              throw InputError("item 7");
                      });
                  });
              }),
              "item 7");
}

} // namespace
