// Threads, the recursive mutex and the timed condition wait.
#include <gtest/gtest.h>

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "common/conditionvariable.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/thread.h"
#include "unit/stdout_capture.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A body that holds until the test opens the gate.
struct Gate {
    std::atomic<bool> open{false};
    std::atomic<int> runs{0}, finished{0};
    static void* Body(void* p) {
        auto* g = static_cast<Gate*>(p);
        g->runs++;
        while (!g->open) std::this_thread::sleep_for(milliseconds(1));
        g->finished++;
        return nullptr;
    }
};

void WaitUntil(const std::function<bool()>& done) {
    for (auto limit = Clock::now() + std::chrono::seconds(10); !done() && Clock::now() < limit;)
        std::this_thread::sleep_for(milliseconds(1));
}

// First: threads forgotten by later tests log their exit notice late.
TEST(ThreadTest, NoticesAndEscapedExceptionAreLogged) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    StdoutCapture cap;
    kq::Thread t;
    ASSERT_TRUE(t.Start([](void*) -> void* { throw std::runtime_error("boom"); }, nullptr));
    WaitUntil([&] { return !t.IsRunning(); });
    t.Join();
    EXPECT_EQ(cap.Text(),
              "thread.cpp:44[0] Thread 0 Enter\nthread.cpp:49[2] Thread 0 Exception!\n"
              "thread.cpp:52[0] Thread 0 Exit\n");
}

TEST(ThreadTest, JoinWaitsRestartReapsKillAndDestructionForgetTheBody) {
    kq::Thread t;
    EXPECT_FALSE(t.Start(nullptr, nullptr));
    Gate g;
    ASSERT_TRUE(t.Start(Gate::Body, &g));
    std::thread opener([&] {
        std::this_thread::sleep_for(milliseconds(30));
        g.open = true;
    });
    EXPECT_TRUE(t.Join());
    EXPECT_EQ(g.finished, 1);
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.Join());  // idle again
    opener.join();
    for (int i = 0; i < 50; ++i) {  // an ended thread resets itself: no Join needed
        ASSERT_TRUE(t.Start(Gate::Body, &g));
        WaitUntil([&] { return !t.IsRunning(); });
    }
    EXPECT_EQ(g.runs, 51);
    Gate held;
    {
        kq::Thread killed, destroyed;
        ASSERT_TRUE(killed.Start(Gate::Body, &held));
        ASSERT_TRUE(destroyed.Start(Gate::Body, &held));
        WaitUntil([&] { return held.runs == 2; });
        EXPECT_TRUE(killed.Kill());
        EXPECT_FALSE(killed.IsRunning());
        EXPECT_FALSE(killed.Kill());
        EXPECT_FALSE(killed.Join());
    }  // both objects are gone while their former threads still run
    EXPECT_EQ(held.finished, 0);
    held.open = true;
    WaitUntil([&] { return held.finished == 2; });
    EXPECT_EQ(held.finished, 2);
}

TEST(MutexTest, RecursiveLockExcludesOtherThreadsUntilFullyReleased) {
    kq::Mutex m;
    long counter = 0;
    auto add = [&] {
        for (int i = 0; i < 10000; ++i, m.Unlock(), m.Unlock()) {
            m.Lock();
            m.Lock();
            ++counter;
        }
    };
    ASSERT_TRUE(m.Lock() && m.Lock() && m.Unlock());
    std::thread a(add), b(add);
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(counter, 0);  // still held once by this thread
    EXPECT_TRUE(m.Unlock());
    a.join();
    b.join();
    EXPECT_EQ(counter, 20000);
}

// A notify is not remembered. Timed waits start late in a wall-clock second,
// so that the sub-second part of the delay carries into the next second.
TEST(ConditionVariableTest, NotifyWakesAWaiterAndTimedWaitsLastInFull) {
    ConditionVariable cv;
    cv.Notify();
    EXPECT_EQ(cv.WaitTime(0), ETIMEDOUT);
    std::thread notifier([&] {
        for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(milliseconds(5))) cv.Notify();
    });
    EXPECT_EQ(cv.WaitTime(60000), 0);
    notifier.join();
    for (unsigned ms : {300u, 1700u}) {
        timeval now;
        gettimeofday(&now, nullptr);
        if (now.tv_usec < 750000 || now.tv_usec > 900000)
            std::this_thread::sleep_for(
                std::chrono::microseconds((1750000 - now.tv_usec) % 1000000));
        const auto start = Clock::now();
        EXPECT_EQ(cv.WaitTime(ms), ETIMEDOUT) << ms;
        EXPECT_GE(Clock::now() - start, milliseconds(ms - 1)) << ms;
    }
}

}  // namespace
