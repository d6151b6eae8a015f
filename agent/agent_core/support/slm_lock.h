// The agent's locks: a heap mutex with a polling timed lock, a read-write lock that admits readers
// freely while no writer holds it and hands the lock to waiting writers first when a writer leaves,
// and counters changed under one process-wide mutex. Every thread may call any of these.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace slm {

struct SlmMutex {
  pthread_mutex_t mutex;
};

// Null when the mutex cannot be allocated or initialised.
SlmMutex* createMutex();
void deleteMutex(SlmMutex* mutex);

constexpr int kMutexOk = 0;
constexpr int kMutexError = 1;
[[nodiscard]] int lockMutex(SlmMutex* mutex);
int unlockMutex(SlmMutex* mutex);

constexpr int kMutexAcquired = 0;
constexpr int kMutexLockError = 1;
constexpr int kMutexNotAcquired = 2;
// Tries to take the mutex up to `tries` times, sleeping one second after each try that finds it
// held, so the bound is in seconds. The sleeps are cancellation points.
[[nodiscard]] int lockMutexTimeout(SlmMutex* mutex, int32_t tries);

// All fields are guarded by `mutex`.
struct SlmRwLock {
  pthread_mutex_t mutex;
  pthread_cond_t readersCond;
  pthread_cond_t writersCond;
  int32_t valid;  // 1 once initialised
  int32_t activeReaders;
  int32_t writerActive;
  int32_t waitingReaders;
  int32_t waitingWriters;
};

constexpr int kRwlOk = 0;
constexpr int kRwlError = 1;
// Stores a new lock in `*handle`; fails without touching it.
[[nodiscard]] int initRwl(SlmRwLock** handle);
int freeRwl(SlmRwLock* lock);
// Readers wait only for an active writer, never for waiting ones.
[[nodiscard]] int readLock(SlmRwLock* lock);
[[nodiscard]] int writeLock(SlmRwLock* lock);
// Releases the writer when one is active, otherwise one reader.
int releaseLock(SlmRwLock* lock);

// Unlocks a locked POSIX mutex on scope exit, also while a cancelled thread unwinds out of a
// condition wait (the wait has taken the mutex again by then).
class MutexUnlocker {
 public:
  explicit MutexUnlocker(pthread_mutex_t* mutex) : mutex_(mutex) {}
  ~MutexUnlocker() { pthread_mutex_unlock(mutex_); }
  MutexUnlocker(const MutexUnlocker&) = delete;
  MutexUnlocker& operator=(const MutexUnlocker&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// Adds `delta` to `*counter` under the process-wide counter mutex and returns the new value.
int32_t atomicAdd(int32_t* counter, int32_t delta);
// Reads and writes a counter under the same mutex, for counters that other threads add to.
int32_t atomicGet(const int32_t* counter);
void atomicSet(int32_t* counter, int32_t value);

}  // namespace slm

#define ATOMIC_INT_INCR(counter) ::slm::atomicAdd((counter), 1)
#define ATOMIC_INT_DECR(counter) ::slm::atomicAdd((counter), -1)
