#include "platform/Thread.h"

#include "platform/InterruptableRunnable.h"
#include "platform/Semaphore.h"
#include "platform/Time.h"

#include <gtest/gtest.h>

namespace {

class Worker : public InterruptableRunnable {
public:
    int rounds = 0;     // of the thread, until it is joined
    double pause = 0.0; ///< [s]
    Semaphore turn;

protected:
    void runNestedTask() override {
        ++rounds;
        turn.post();
        sleep(pause);
    }
};

} // namespace

TEST(Thread, RunsAgainAfterAStop) {
    Worker worker;
    Thread thread(worker, "worker");
    thread.join(); // nothing to wait for
    for (int round = 0; round < 50; ++round) {
        thread.start(); // waits for the run before, when it still goes
        while (worker.turn.tryWait()) {
        }
        EXPECT_TRUE(worker.turn.wait(10.0)); // a task of this run: the one before has ended
        worker.stop();
        if (round % 2 == 0)
            thread.join();
        thread.start();
        worker.stop(); // before, while or after the thread begins
    }
    thread.join();
    EXPECT_FALSE(thread.isRunning());
}

TEST(Thread, TheDestructorEndsASleep) {
    Worker worker;
    worker.pause = 30.0;
    const double start = Platform::time().getTime();
    {
        Thread thread(worker);
        thread.start();
        ASSERT_TRUE(worker.turn.wait(10.0));
    }
    EXPECT_LT(Platform::time().getTime() - start, 10.0);
    EXPECT_EQ(worker.rounds, 1);
}
