// Threads, the recursive mutex and the timed condition wait.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/conditionvariable.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/thread.h"
#include "unit/stdout_capture.h"

namespace {

using Clock = std::chrono::steady_clock;

// A body that holds until the test releases it.
struct Gate {
    std::atomic<bool> open{false};
    std::atomic<int> runs{0};
    std::atomic<bool> finished{false};
};

void* WaitForGate(void* p) {
    auto* g = static_cast<Gate*>(p);
    g->runs++;
    while (!g->open.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g->finished = true;
    return nullptr;
}

void* Throws(void*) {
    throw std::runtime_error("boom");
}

void* Count(void* p) {
    static_cast<std::atomic<int>*>(p)->fetch_add(1);
    return nullptr;
}

void WaitUntil(const std::function<bool()>& done) {
    auto limit = Clock::now() + std::chrono::seconds(10);
    while (!done() && Clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(ThreadTest, StartWithNullFunctionFails) {
    kq::Thread t;
    EXPECT_FALSE(t.Start(nullptr, nullptr));
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.Join());
}

TEST(ThreadTest, JoinWaitsForARunningBodyAndReturnsTrue) {
    Gate g;
    kq::Thread t;
    ASSERT_TRUE(t.Start(WaitForGate, &g));
    EXPECT_TRUE(t.IsRunning());
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        g.open = true;
    });
    EXPECT_TRUE(t.Join());
    EXPECT_TRUE(g.finished.load());
    EXPECT_FALSE(t.IsRunning());
    EXPECT_FALSE(t.Join());  // idle again
    opener.join();
}

TEST(ThreadTest, EndedThreadResetsItselfAndJoinReportsFalse) {
    std::atomic<int> n{0};
    kq::Thread t;
    ASSERT_TRUE(t.Start(Count, &n));
    WaitUntil([&] { return !t.IsRunning(); });
    EXPECT_EQ(n.load(), 1);
    EXPECT_FALSE(t.Join());  // reaps the ended thread all the same
}

TEST(ThreadTest, CanBeRestartedManyTimesWithoutJoining) {
    std::atomic<int> n{0};
    kq::Thread t;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(t.Start(Count, &n));
        WaitUntil([&] { return !t.IsRunning(); });
    }
    t.Join();
    EXPECT_EQ(n.load(), 50);
}

TEST(ThreadTest, NoticesAndEscapedExceptionAreLogged) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    StdoutCapture cap;
    {
        kq::Thread t;
        ASSERT_TRUE(t.Start(Throws, nullptr));
        WaitUntil([&] { return !t.IsRunning(); });
        t.Join();
    }
    EXPECT_EQ(cap.Text(),
              "thread.cpp:44[0] Thread 0 Enter\n"
              "thread.cpp:49[2] Thread 0 Exception!\n"
              "thread.cpp:52[0] Thread 0 Exit\n");
}

TEST(ThreadTest, ThresholdOneHidesTheNoticesButNotTheException) {
    kq::LogInit(nullptr, kq::LOG_INFO);
    StdoutCapture cap;
    kq::Thread t;
    ASSERT_TRUE(t.Start(Throws, nullptr));
    WaitUntil([&] { return !t.IsRunning(); });
    t.Join();
    EXPECT_EQ(cap.Text(), "thread.cpp:49[2] Thread 0 Exception!\n");
    kq::LogInit(nullptr, kq::LOG_DEBUG);
}

struct Shared {
    kq::Mutex mutex;
    long counter = 0;
};

void* AddWithNestedLock(void* p) {
    auto* s = static_cast<Shared*>(p);
    for (int i = 0; i < 10000; ++i) {
        s->mutex.Lock();
        s->mutex.Lock();  // recursive: the owner may lock again
        ++s->counter;
        s->mutex.Unlock();
        s->mutex.Unlock();
    }
    return nullptr;
}

TEST(MutexTest, RecursiveLockingStillExcludesOtherThreads) {
    Shared s;
    kq::Thread a;
    kq::Thread b;
    ASSERT_TRUE(a.Start(AddWithNestedLock, &s));
    ASSERT_TRUE(b.Start(AddWithNestedLock, &s));
    a.Join();
    b.Join();
    EXPECT_EQ(s.counter, 20000);
}

TEST(MutexTest, HeldTwiceMustBeReleasedTwice) {
    kq::Mutex m;
    ASSERT_TRUE(m.Lock());
    ASSERT_TRUE(m.Lock());
    EXPECT_TRUE(m.Unlock());
    std::atomic<bool> got{false};
    std::thread other([&] {
        m.Lock();
        got = true;
        m.Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(got.load());  // still held once
    EXPECT_TRUE(m.Unlock());
    other.join();
    EXPECT_TRUE(got.load());
}

long MsSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

TEST(ConditionVariableTest, ZeroWaitTimesOutAtOnce) {
    ConditionVariable cv;
    auto start = Clock::now();
    EXPECT_EQ(cv.WaitTime(0), ETIMEDOUT);
    EXPECT_LT(MsSince(start), 1000);
}

TEST(ConditionVariableTest, NotifyWithoutWaiterIsNotRemembered) {
    ConditionVariable cv;
    cv.Notify();
    cv.Reset();
    EXPECT_EQ(cv.WaitTime(20), ETIMEDOUT);
}

TEST(ConditionVariableTest, NotifyWakesAWaiter) {
    ConditionVariable cv;
    std::atomic<bool> stop{false};
    std::thread notifier([&] {
        while (!stop.load()) {
            cv.Notify();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    auto start = Clock::now();
    EXPECT_EQ(cv.WaitTime(10000), 0);
    EXPECT_LT(MsSince(start), 5000);
    stop = true;
    notifier.join();
}

// Waits are checked for never returning early and never failing, whatever the
// sub-second part of the clock: each delay lands on many microsecond phases.
TEST(ConditionVariableTest, SubSecondWaitsAcrossSecondBoundariesAreValid) {
    ConditionVariable cv;
    for (unsigned ms : {1u, 7u, 999u, 1001u}) {
        for (int round = 0; round < (ms > 100 ? 1 : 40); ++round) {
            auto start = Clock::now();
            int rc = cv.WaitTime(ms);
            EXPECT_EQ(rc, ETIMEDOUT) << ms;
            EXPECT_GE(MsSince(start), static_cast<long>(ms) - 1) << ms;
        }
    }
}

TEST(ConditionVariableTest, WaitThatCarriesIntoTheNextSecondWaitsFully) {
    // Start the wait in the second half of a second so the microseconds carry.
    timeval now;
    gettimeofday(&now, nullptr);
    if (now.tv_usec < 600000) {
        std::this_thread::sleep_for(std::chrono::microseconds(600000 - now.tv_usec));
    }
    ConditionVariable cv;
    auto start = Clock::now();
    EXPECT_EQ(cv.WaitTime(1250), ETIMEDOUT);
    EXPECT_GE(MsSince(start), 1249);
}

// Last in the file: the forgotten threads still log their exit notice after
// the body ends, which must not land in another test's captured output.
TEST(ThreadTest, KillForgetsButDoesNotStopTheBody) {
    Gate g;
    {
        kq::Thread t;
        ASSERT_TRUE(t.Start(WaitForGate, &g));
        WaitUntil([&] { return g.runs.load() == 1; });
        EXPECT_TRUE(t.Kill());
        EXPECT_FALSE(t.IsRunning());
        EXPECT_FALSE(t.Kill());
        EXPECT_FALSE(t.Join());
    }  // the object is gone while its former thread still runs
    EXPECT_FALSE(g.finished.load());
    g.open = true;
    WaitUntil([&] { return g.finished.load(); });
    EXPECT_TRUE(g.finished.load());
}

TEST(ThreadTest, DestroyingARunningThreadOnlyForgetsIt) {
    Gate g;
    auto* t = new kq::Thread;
    ASSERT_TRUE(t->Start(WaitForGate, &g));
    delete t;
    g.open = true;
    WaitUntil([&] { return g.finished.load(); });
    EXPECT_TRUE(g.finished.load());
}

}  // namespace
