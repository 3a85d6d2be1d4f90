// One function on one POSIX thread, with start/end/exception notices.
#pragma once

#include <pthread.h>

#include <memory>

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
    // Waits for a running thread; false when the object is idle. A thread
    // that already ended is still reaped here, so no handle is left behind.
    bool Join();
    // Forgets the thread without stopping it.
    bool Kill();
    void Reset();
    bool IsRunning() const;

    struct State;  // shared with the running thread, which may outlive this object

  private:
    static void* Entry(void* self);
    void ReapOrForget();

    std::shared_ptr<State> state_;
    pthread_t handle_{};
    bool joinable_ = false;  // a started, not yet joined or detached thread
};

}  // namespace kq
