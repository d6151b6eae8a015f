// Mutexes, read-write locks and atomic counters on POSIX threads. Nothing here traces: callers
// report failures in their own terms.
#include "agent_core/support/slm_lock.h"

#include <unistd.h>

#include <cerrno>
#include <new>

namespace slm {
namespace {

// Statically initialised, so counters work before anything is set up and after it is torn down.
pthread_mutex_t counter_mutex = PTHREAD_MUTEX_INITIALIZER;

bool usable(const SlmRwLock* lock) {
  return lock != nullptr && lock->valid == 1;
}

}  // namespace

SlmMutex* createMutex() {
  auto* mutex = new (std::nothrow) SlmMutex;
  if (mutex == nullptr) return nullptr;
  if (pthread_mutex_init(&mutex->mutex, nullptr) != 0) {
    delete mutex;
    return nullptr;
  }
  return mutex;
}

void deleteMutex(SlmMutex* mutex) {
  if (mutex == nullptr) return;
  pthread_mutex_destroy(&mutex->mutex);
  delete mutex;
}

int lockMutex(SlmMutex* mutex) {
  if (mutex == nullptr || pthread_mutex_lock(&mutex->mutex) != 0) return kMutexError;
  return kMutexOk;
}

int unlockMutex(SlmMutex* mutex) {
  if (mutex == nullptr || pthread_mutex_unlock(&mutex->mutex) != 0) return kMutexError;
  return kMutexOk;
}

int lockMutexTimeout(SlmMutex* mutex, int32_t tries) {
  if (mutex == nullptr) return kMutexLockError;
  for (int32_t attempt = 1; attempt <= tries; ++attempt) {
    int rc = pthread_mutex_trylock(&mutex->mutex);
    if (rc == 0) return kMutexAcquired;
    if (rc != EBUSY) return kMutexLockError;
    if (attempt < tries) sleep(1);
  }
  return kMutexNotAcquired;
}

int initRwl(SlmRwLock** handle) {
  if (handle == nullptr) return kRwlError;
  auto* lock = new (std::nothrow) SlmRwLock{};
  if (lock == nullptr) return kRwlError;
  if (pthread_mutex_init(&lock->mutex, nullptr) != 0) {
    delete lock;
    return kRwlError;
  }
  if (pthread_cond_init(&lock->readersCond, nullptr) != 0) {
    pthread_mutex_destroy(&lock->mutex);
    delete lock;
    return kRwlError;
  }
  if (pthread_cond_init(&lock->writersCond, nullptr) != 0) {
    pthread_cond_destroy(&lock->readersCond);
    pthread_mutex_destroy(&lock->mutex);
    delete lock;
    return kRwlError;
  }
  lock->valid = 1;
  *handle = lock;
  return kRwlOk;
}

int freeRwl(SlmRwLock* lock) {
  if (!usable(lock)) return kRwlError;
  lock->valid = 0;
  pthread_cond_destroy(&lock->readersCond);
  pthread_cond_destroy(&lock->writersCond);
  pthread_mutex_destroy(&lock->mutex);
  delete lock;
  return kRwlOk;
}

int readLock(SlmRwLock* lock) {
  if (!usable(lock) || pthread_mutex_lock(&lock->mutex) != 0) return kRwlError;
  MutexUnlocker unlocker(&lock->mutex);
  if (lock->writerActive) {
    ++lock->waitingReaders;
    while (lock->writerActive) {
      if (pthread_cond_wait(&lock->readersCond, &lock->mutex) != 0) {
        --lock->waitingReaders;
        return kRwlError;
      }
    }
    --lock->waitingReaders;
  }
  ++lock->activeReaders;
  return kRwlOk;
}

int writeLock(SlmRwLock* lock) {
  if (!usable(lock) || pthread_mutex_lock(&lock->mutex) != 0) return kRwlError;
  MutexUnlocker unlocker(&lock->mutex);
  if (lock->writerActive || lock->activeReaders > 0) {
    ++lock->waitingWriters;
    while (lock->writerActive || lock->activeReaders > 0) {
      if (pthread_cond_wait(&lock->writersCond, &lock->mutex) != 0) {
        --lock->waitingWriters;
        return kRwlError;
      }
    }
    --lock->waitingWriters;
  }
  lock->writerActive = 1;
  return kRwlOk;
}

int releaseLock(SlmRwLock* lock) {
  if (!usable(lock) || pthread_mutex_lock(&lock->mutex) != 0) return kRwlError;
  MutexUnlocker unlocker(&lock->mutex);
  if (lock->writerActive) {
    lock->writerActive = 0;
    // A leaving writer hands over to the next writer; readers get in only when none waits.
    if (lock->waitingWriters > 0)
      return pthread_cond_signal(&lock->writersCond) == 0 ? kRwlOk : kRwlError;
    if (lock->waitingReaders > 0)
      return pthread_cond_broadcast(&lock->readersCond) == 0 ? kRwlOk : kRwlError;
    return kRwlOk;
  }
  if (lock->activeReaders <= 0) return kRwlError;
  --lock->activeReaders;
  if (lock->activeReaders == 0 && lock->waitingWriters > 0)
    return pthread_cond_signal(&lock->writersCond) == 0 ? kRwlOk : kRwlError;
  return kRwlOk;
}

int32_t atomicAdd(int32_t* counter, int32_t delta) {
  pthread_mutex_lock(&counter_mutex);
  MutexUnlocker unlocker(&counter_mutex);
  *counter += delta;
  return *counter;
}

int32_t atomicGet(const int32_t* counter) {
  pthread_mutex_lock(&counter_mutex);
  MutexUnlocker unlocker(&counter_mutex);
  return *counter;
}

void atomicSet(int32_t* counter, int32_t value) {
  pthread_mutex_lock(&counter_mutex);
  MutexUnlocker unlocker(&counter_mutex);
  *counter = value;
}

}  // namespace slm
