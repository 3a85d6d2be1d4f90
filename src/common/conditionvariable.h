// Mutex-and-condition pair with a millisecond time-out wait. A notification
// that arrives while nobody waits is not remembered.
#pragma once

#include <pthread.h>

class ConditionVariable {
public:
    ConditionVariable();
    virtual ~ConditionVariable();
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    // 0 when woken, ETIMEDOUT after the time-out.
    int WaitTime(unsigned int ms);
    void Notify();
    void Reset();

private:
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
};
