// Recursive mutex.
#pragma once

#include <pthread.h>

namespace kq {

class Mutex {
public:
    Mutex();
    virtual ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    bool Lock();
    bool Unlock();

private:
    pthread_mutex_t mutex_;
};

}  // namespace kq
