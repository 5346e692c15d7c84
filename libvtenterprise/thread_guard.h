// Holds a mutex for the length of a block; misuse is the host's programming error.
#ifndef LIBVTENTERPRISE_THREAD_GUARD_H
#define LIBVTENTERPRISE_THREAD_GUARD_H

#include <veltrane/mutex.h>

class ThreadGuard {
  public:
    explicit ThreadGuard(pthread_mutex_t *mutex) : mutex_(mutex) { ThreadLock(mutex_); }
    ~ThreadGuard() { ThreadUnlock(mutex_); }
    ThreadGuard(const ThreadGuard &) = delete;
    ThreadGuard &operator=(const ThreadGuard &) = delete;

  private:
    pthread_mutex_t *mutex_;
};

#endif
