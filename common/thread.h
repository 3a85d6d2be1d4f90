// One function on one POSIX thread, with start/end/exception notices.
#pragma once

#include <pthread.h>

#include <atomic>

namespace kq {

unsigned int GetCurThreadId();

class Thread {
public:
    using Func = void* (*)(void*);

    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    bool Start(Func fn, void* arg);
    // Waits for a running thread; false when the object is idle.
    bool Join();
    // Forgets the thread without stopping it.
    bool Kill();
    void Reset();
    bool IsRunning() const { return running_.load(); }

private:
    static void* Entry(void* self);

    void* arg_ = nullptr;
    std::atomic<bool> running_{false};
    pthread_t handle_{};
    bool joinable_ = false;  // a started, not yet joined thread
    Func func_ = nullptr;
};

}  // namespace kq
