#include "common/conditionvariable.h"

#include <sys/time.h>

#include <ctime>

ConditionVariable::ConditionVariable() {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_cond_init(&cond_, nullptr);  // default clock: deadlines are wall-clock times
}

ConditionVariable::~ConditionVariable() {
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

int ConditionVariable::WaitTime(unsigned int ms) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    long usec = static_cast<long>(now.tv_usec) + static_cast<long>(ms % 1000) * 1000L;
    struct timespec deadline;
    // Carry whole seconds out of the microseconds so the deadline is always valid.
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(ms / 1000) + usec / 1000000L;
    deadline.tv_nsec = (usec % 1000000L) * 1000L;
    pthread_mutex_lock(&mutex_);
    int rc = pthread_cond_timedwait(&cond_, &mutex_, &deadline);
    pthread_mutex_unlock(&mutex_);
    return rc;
}

void ConditionVariable::Notify() {
    pthread_mutex_lock(&mutex_);
    pthread_cond_signal(&cond_);
    pthread_mutex_unlock(&mutex_);
}

void ConditionVariable::Reset() {}
