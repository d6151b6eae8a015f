#include "agent_core/support/slm_lock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/wait_until.h"

namespace slm {
namespace {

using test::waitUntil;

TEST(Mutex, LockResultsAndTimedLockSleepsBetweenTries) {
  EXPECT_EQ(kMutexError, lockMutex(nullptr));
  EXPECT_EQ(kMutexError, unlockMutex(nullptr));
  EXPECT_EQ(kMutexLockError, lockMutexTimeout(nullptr, 3));
  SlmMutex* mutex = createMutex();
  ASSERT_EQ(kMutexOk, lockMutex(mutex));
  EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  ASSERT_EQ(kMutexAcquired, lockMutexTimeout(mutex, 1));
  // A default mutex does not nest: while this thread holds it, two tries one second apart fail.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kMutexNotAcquired, lockMutexTimeout(mutex, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
  EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  deleteMutex(mutex);
}

// Active readers, writer active, waiting readers, waiting writers.
std::vector<int32_t> countsOf(SlmRwLock* lock) {
  pthread_mutex_lock(&lock->mutex);
  std::vector<int32_t> counts{lock->activeReaders, lock->writerActive, lock->waitingReaders,
                              lock->waitingWriters};
  pthread_mutex_unlock(&lock->mutex);
  return counts;
}

TEST(Rwl, RefusesMissingInvalidOrUnheldLock) {
  EXPECT_EQ(kRwlError, initRwl(nullptr));
  SlmRwLock neverInitialised{};
  for (auto operation : {readLock, writeLock, releaseLock, freeRwl}) {
    EXPECT_EQ(kRwlError, operation(nullptr));
    EXPECT_EQ(kRwlError, operation(&neverInitialised));
  }
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  EXPECT_EQ(kRwlError, releaseLock(lock));  // held by nobody
  EXPECT_EQ(0, countsOf(lock)[0]);
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, WaitingWriterDoesNotHoldReadersBack) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  ASSERT_EQ(kRwlOk, readLock(lock));
  std::atomic<bool> written{false};
  std::thread writer([&] {
    EXPECT_EQ(kRwlOk, writeLock(lock));
    written = true;
    EXPECT_EQ(kRwlOk, releaseLock(lock));
  });
  ASSERT_TRUE(waitUntil([&] { return countsOf(lock)[3] == 1; }));
  // A second reader gets in although a writer waits; the writer waits for both.
  ASSERT_EQ(kRwlOk, readLock(lock));
  EXPECT_EQ(kRwlOk, releaseLock(lock));
  EXPECT_FALSE(written.load());
  EXPECT_EQ(kRwlOk, releaseLock(lock));
  writer.join();
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, LeavingWriterHandsOverToWaitingWriterBeforeReaders) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  ASSERT_EQ(kRwlOk, writeLock(lock));
  std::atomic<char> order[4] = {};  // who got the lock, in turn
  std::atomic<int> taken{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (char who : {'R', 'R', 'W'}) {
    threads.emplace_back([&, who] {
      EXPECT_EQ(kRwlOk, who == 'W' ? writeLock(lock) : readLock(lock));
      order[taken++] = who;
      waitUntil([&] { return go.load(); });
      EXPECT_EQ(kRwlOk, releaseLock(lock));
    });
  }
  ASSERT_TRUE(waitUntil([&] { return countsOf(lock) == std::vector<int32_t>{0, 1, 2, 1}; }));
  ASSERT_EQ(kRwlOk, releaseLock(lock));
  ASSERT_TRUE(waitUntil([&] { return order[0] != 0; }));
  EXPECT_EQ('W', order[0]);
  EXPECT_EQ((std::vector<int32_t>{0, 1, 2, 0}), countsOf(lock));
  go = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ("WRR", (std::string{order[0], order[1], order[2]}));
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, WritersExcludeReadersAndEachOther) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  int64_t first = 0, second = 0;  // plain fields: only the lock keeps the threads apart
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, writer = i % 2 == 0] {
      for (int round = 0; round < 300; ++round) {
        EXPECT_EQ(kRwlOk, writer ? writeLock(lock) : readLock(lock));
        if (writer) ++first, ++second;
        if (!writer && first != second) ++torn;
        EXPECT_EQ(kRwlOk, releaseLock(lock));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, torn.load());
  EXPECT_EQ(900, first);
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Atomic, ConcurrentAddsHandOutEveryValueOnce) {
  int32_t counter = 0;
  std::vector<std::atomic<int>> hits(4001);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 1000; ++n) ++hits.at(ATOMIC_INT_INCR(&counter));
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(4000, std::count(hits.begin() + 1, hits.end(), 1));
  EXPECT_EQ(3999, ATOMIC_INT_DECR(&counter));
  EXPECT_EQ(-5, atomicAdd(&counter, -4004));
}

}  // namespace
}  // namespace slm
