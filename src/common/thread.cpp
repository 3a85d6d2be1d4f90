#include "common/thread.h"

#include <atomic>

#include "common/log.h"

namespace kq {

// The flag that the owner and the ending thread both write.
struct Thread::State {
    std::atomic<bool> running{false};
};

namespace {

// Notices carry fixed line numbers so that log filters stay valid across edits.
constexpr int kEnterLine = 44;
constexpr int kExceptionLine = 49;
constexpr int kExitLine = 52;

// What the new thread receives: the call to make and its own reference to
// the shared flag, so that forgetting or destroying the owner is harmless.
struct Launch {
    std::shared_ptr<Thread::State> state;
    Thread::Func func;
    void* arg;
};

}  // namespace

unsigned int GetCurThreadId() {
    return 0;
}

Thread::Thread() {
    Reset();
}

Thread::~Thread() {
    if (!Kill()) ReapOrForget();
}

// The thread body may poll IsRunning while its owner joins or resets, so the
// state pointer itself is read and replaced atomically.
bool Thread::IsRunning() const {
    std::shared_ptr<State> state = std::atomic_load(&state_);
    return state && state->running.load();
}

bool Thread::Start(Func fn, void* arg) {
    if (!fn) return false;
    ReapOrForget();  // an earlier thread, ended or not, must not leak its handle
    auto state = std::make_shared<State>();
    state->running.store(true);
    auto* launch = new Launch{state, fn, arg};
    std::atomic_store(&state_, state);
    if (pthread_create(&handle_, nullptr, &Thread::Entry, launch) != 0) {
        delete launch;
        state->running.store(false);
        Reset();
        return false;
    }
    joinable_ = true;
    return true;
}

void* Thread::Entry(void* self) {
    std::unique_ptr<Launch> launch(static_cast<Launch*>(self));
    Log(__FILE__, kEnterLine, LOG_DEBUG, "Thread %u Enter\n", GetCurThreadId());
    if (launch->func) {
        try {
            launch->func(launch->arg);
        } catch (...) {
            Log(__FILE__, kExceptionLine, LOG_WARN, "Thread %u Exception!\n", GetCurThreadId());
        }
    }
    Log(__FILE__, kExitLine, LOG_DEBUG, "Thread %u Exit\n", GetCurThreadId());
    launch->state->running.store(false);
    return nullptr;
}

bool Thread::Join() {
    bool wasRunning = IsRunning();
    if (!joinable_) {
        Reset();
        return wasRunning;
    }
    if (pthread_equal(handle_, pthread_self())) {
        pthread_detach(handle_);  // joining oneself would deadlock
    } else {
        pthread_join(handle_, nullptr);
    }
    joinable_ = false;
    Reset();
    return wasRunning;
}

bool Thread::Kill() {
    if (!IsRunning()) return false;
    Reset();
    return true;
}

void Thread::Reset() {
    if (joinable_) {
        // Forgetting a live thread: detach so its resources go when it ends.
        pthread_detach(handle_);
        joinable_ = false;
    }
    std::atomic_store(&state_, std::shared_ptr<State>());
    handle_ = pthread_t{};
}

// Joins a thread that already ended; detaches one that still runs.
void Thread::ReapOrForget() {
    if (!joinable_) return;
    if (IsRunning() || pthread_equal(handle_, pthread_self())) {
        pthread_detach(handle_);
    } else {
        pthread_join(handle_, nullptr);
    }
    joinable_ = false;
}

}  // namespace kq
