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
};

void* WaitForGate(void* p) {
    auto* g = static_cast<Gate*>(p);
    g->runs++;
    while (!g->open.load()) std::this_thread::sleep_for(milliseconds(1));
    g->finished++;
    return nullptr;
}

void WaitUntil(const std::function<bool()>& done) {
    for (auto limit = Clock::now() + std::chrono::seconds(10); !done() && Clock::now() < limit;)
        std::this_thread::sleep_for(milliseconds(1));
}

TEST(ThreadTest, JoinWaitsForTheBodyAndAnEndedThreadCanBeRestarted) {
    kq::Thread t;
    EXPECT_FALSE(t.Start(nullptr, nullptr));
    Gate g;
    ASSERT_TRUE(t.Start(WaitForGate, &g));
    EXPECT_TRUE(t.IsRunning());
    std::thread opener([&] {
        std::this_thread::sleep_for(milliseconds(30));
        g.open = true;
    });
    EXPECT_TRUE(t.Join());
    EXPECT_EQ(g.finished.load(), 1);
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.Join());  // idle again
    opener.join();
    // An ended thread resets itself; restarting reaps it without a Join.
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(t.Start(WaitForGate, &g));
        WaitUntil([&] { return !t.IsRunning(); });
    }
    EXPECT_FALSE(t.Join());
    EXPECT_EQ(g.runs.load(), 51);
}

TEST(ThreadTest, NoticesAndEscapedExceptionAreLogged) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    StdoutCapture cap;
    kq::Thread t;
    ASSERT_TRUE(t.Start([](void*) -> void* { throw std::runtime_error("boom"); }, nullptr));
    WaitUntil([&] { return !t.IsRunning(); });
    t.Join();
    EXPECT_EQ(cap.Text(),
              "thread.cpp:44[0] Thread 0 Enter\n"
              "thread.cpp:49[2] Thread 0 Exception!\n"
              "thread.cpp:52[0] Thread 0 Exit\n");
}

// After the notice test: forgotten threads log their exit notice late.
TEST(ThreadTest, KillAndDestructionForgetTheBodyWithoutStoppingIt) {
    Gate g;
    {
        kq::Thread killed, destroyed;
        ASSERT_TRUE(killed.Start(WaitForGate, &g));
        ASSERT_TRUE(destroyed.Start(WaitForGate, &g));
        WaitUntil([&] { return g.runs.load() == 2; });
        EXPECT_TRUE(killed.Kill());
        EXPECT_FALSE(killed.IsRunning());
        EXPECT_FALSE(killed.Kill());
        EXPECT_FALSE(killed.Join());
    }  // both objects are gone while their former threads still run
    EXPECT_EQ(g.finished.load(), 0);
    g.open = true;
    WaitUntil([&] { return g.finished.load() == 2; });
    EXPECT_EQ(g.finished.load(), 2);
}

TEST(MutexTest, RecursiveLockExcludesOtherThreadsUntilFullyReleased) {
    kq::Mutex m;
    long counter = 0;
    auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            m.Lock();
            m.Lock();  // recursive: the owner may lock again
            ++counter;
            m.Unlock();
            m.Unlock();
        }
    };
    ASSERT_TRUE(m.Lock());
    ASSERT_TRUE(m.Lock());
    EXPECT_TRUE(m.Unlock());
    std::thread a(add), b(add);
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(counter, 0);  // still held once by this thread
    EXPECT_TRUE(m.Unlock());
    a.join();
    b.join();
    EXPECT_EQ(counter, 20000);
}

TEST(ConditionVariableTest, NotifyWakesAWaiterButIsNotRemembered) {
    ConditionVariable cv;
    cv.Notify();
    EXPECT_EQ(cv.WaitTime(0), ETIMEDOUT);
    std::atomic<bool> stop{false};
    std::thread notifier([&] {
        for (; !stop.load(); std::this_thread::sleep_for(milliseconds(5))) cv.Notify();
    });
    EXPECT_EQ(cv.WaitTime(60000), 0);
    stop = true;
    notifier.join();
}

// Each wait starts late in a wall-clock second, so that adding the sub-second
// part of the delay to the clock's microseconds carries into the next second.
TEST(ConditionVariableTest, WaitsCarryingIntoTheNextSecondTimeOutInFull) {
    ConditionVariable cv;
    for (unsigned ms : {300u, 1700u}) {
        timeval now;
        gettimeofday(&now, nullptr);
        if (now.tv_usec < 750000 || now.tv_usec > 900000)
            std::this_thread::sleep_for(
                std::chrono::microseconds((1750000 - now.tv_usec) % 1000000));
        auto start = Clock::now();
        EXPECT_EQ(cv.WaitTime(ms), ETIMEDOUT) << ms;
        EXPECT_GE(Clock::now() - start, milliseconds(ms - 1)) << ms;
    }
}

}  // namespace
