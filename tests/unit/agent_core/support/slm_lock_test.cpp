#include "agent_core/support/slm_lock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "support/wait_until.h"

namespace slm {
namespace {

using test::waitUntil;

TEST(Mutex, LockResults) {
  EXPECT_EQ(kMutexError, lockMutex(nullptr));
  EXPECT_EQ(kMutexError, unlockMutex(nullptr));
  EXPECT_EQ(kMutexLockError, lockMutexTimeout(nullptr, 3));

  SlmMutex* mutex = createMutex();
  ASSERT_NE(nullptr, mutex);
  ASSERT_EQ(kMutexOk, lockMutex(mutex));
  EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  ASSERT_EQ(kMutexAcquired, lockMutexTimeout(mutex, 1));
  // A default mutex does not nest: while this thread holds it, a single try gives up at once.
  EXPECT_EQ(kMutexNotAcquired, lockMutexTimeout(mutex, 1));
  EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  deleteMutex(mutex);
}

TEST(Mutex, TimedLockSleepsBetweenTries) {
  SlmMutex* mutex = createMutex();
  ASSERT_NE(nullptr, mutex);
  std::atomic<bool> held{false};
  std::atomic<bool> release{false};
  std::thread holder([&] {
    ASSERT_EQ(kMutexOk, lockMutex(mutex));
    held = true;
    waitUntil([&] { return release.load(); });
    EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  });
  ASSERT_TRUE(waitUntil([&] { return held.load(); }));

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kMutexNotAcquired, lockMutexTimeout(mutex, 2));
  // Two tries are one second apart.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));

  release = true;
  holder.join();
  EXPECT_EQ(kMutexAcquired, lockMutexTimeout(mutex, 1));
  EXPECT_EQ(kMutexOk, unlockMutex(mutex));
  deleteMutex(mutex);
}

struct RwlCounts {
  int32_t activeReaders;
  int32_t writerActive;
  int32_t waitingReaders;
  int32_t waitingWriters;
};

RwlCounts countsOf(SlmRwLock* lock) {
  pthread_mutex_lock(&lock->mutex);
  RwlCounts counts{lock->activeReaders, lock->writerActive, lock->waitingReaders,
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
  ASSERT_NE(nullptr, lock);
  EXPECT_EQ(kRwlError, releaseLock(lock));  // held by nobody
  EXPECT_EQ(0, countsOf(lock).activeReaders);
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, WaitingWriterDoesNotHoldReadersBack) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  ASSERT_EQ(kRwlOk, readLock(lock));
  std::atomic<bool> written{false};
  std::thread writer([&] {
    ASSERT_EQ(kRwlOk, writeLock(lock));
    written = true;
    EXPECT_EQ(kRwlOk, releaseLock(lock));
  });
  ASSERT_TRUE(waitUntil([&] { return countsOf(lock).waitingWriters == 1; }));

  // A second reader gets in although a writer waits; the writer waits for both.
  ASSERT_EQ(kRwlOk, readLock(lock));
  EXPECT_EQ(2, countsOf(lock).activeReaders);
  EXPECT_EQ(kRwlOk, releaseLock(lock));
  EXPECT_FALSE(written.load());
  EXPECT_EQ(kRwlOk, releaseLock(lock));
  writer.join();
  EXPECT_TRUE(written.load());
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, LeavingWriterHandsOverToWaitingWriterBeforeReaders) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  ASSERT_EQ(kRwlOk, writeLock(lock));

  std::mutex orderMutex;
  std::string order;  // who got the lock, in turn
  std::atomic<bool> go{false};
  auto take = [&](char who) {
    ASSERT_EQ(kRwlOk, who == 'W' ? writeLock(lock) : readLock(lock));
    {
      std::lock_guard<std::mutex> guard(orderMutex);
      order += who;
    }
    waitUntil([&] { return go.load(); });
    EXPECT_EQ(kRwlOk, releaseLock(lock));
  };
  auto orderSoFar = [&] {
    std::lock_guard<std::mutex> guard(orderMutex);
    return order;
  };
  std::vector<std::thread> threads;
  threads.emplace_back(take, 'R');
  threads.emplace_back(take, 'R');
  threads.emplace_back(take, 'W');
  ASSERT_TRUE(waitUntil([&] {
    RwlCounts counts = countsOf(lock);
    return counts.waitingReaders == 2 && counts.waitingWriters == 1;
  }));

  ASSERT_EQ(kRwlOk, releaseLock(lock));
  ASSERT_TRUE(waitUntil([&] { return !orderSoFar().empty(); }));
  EXPECT_EQ("W", orderSoFar());
  EXPECT_EQ(2, countsOf(lock).waitingReaders);

  go = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ("WRR", orderSoFar());
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Rwl, WritersExcludeReadersAndEachOther) {
  SlmRwLock* lock = nullptr;
  ASSERT_EQ(kRwlOk, initRwl(&lock));
  // Plain fields: only the lock keeps the threads apart (ThreadSanitizer watches them).
  int64_t first = 0;
  int64_t second = 0;
  constexpr int kRounds = 300;
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, writer = i % 2 == 0] {
      for (int round = 0; round < kRounds; ++round) {
        if (writer) {
          ASSERT_EQ(kRwlOk, writeLock(lock));
          ++first;
          ++second;
        } else {
          ASSERT_EQ(kRwlOk, readLock(lock));
          if (first != second) ++torn;
        }
        ASSERT_EQ(kRwlOk, releaseLock(lock));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, torn.load());
  EXPECT_EQ(3 * kRounds, first);
  RwlCounts counts = countsOf(lock);
  EXPECT_EQ(0, counts.activeReaders + counts.writerActive + counts.waitingReaders +
                   counts.waitingWriters);
  EXPECT_EQ(kRwlOk, freeRwl(lock));
}

TEST(Atomic, ConcurrentAddsHandOutEveryValueOnce) {
  int32_t counter = 0;
  constexpr int kThreads = 4;
  constexpr int kAdds = 1000;
  std::vector<std::vector<int32_t>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < kAdds; ++n) seen[i].push_back(ATOMIC_INT_INCR(&counter));
    });
  }
  for (auto& thread : threads) thread.join();

  std::vector<int32_t> all;
  for (const auto& values : seen) all.insert(all.end(), values.begin(), values.end());
  std::sort(all.begin(), all.end());
  std::vector<int32_t> expected(kThreads * kAdds);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(expected, all);

  EXPECT_EQ(kThreads * kAdds - 1, ATOMIC_INT_DECR(&counter));
  EXPECT_EQ(-5, atomicAdd(&counter, -(kThreads * kAdds - 1) - 5));
}

}  // namespace
}  // namespace slm
