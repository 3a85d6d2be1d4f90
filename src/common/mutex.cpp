#include "common/mutex.h"

namespace kq {

Mutex::Mutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    // Recursive, so that code holding the lock may call back into itself.
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex_, &attr);
    pthread_mutexattr_destroy(&attr);
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex_);
}

bool Mutex::Lock() {
    pthread_mutex_lock(&mutex_);
    return true;
}

bool Mutex::Unlock() {
    pthread_mutex_unlock(&mutex_);
    return true;
}

}  // namespace kq
