#include "agent_core/support/slm_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>

#include "support/wait_until.h"

namespace slm {
namespace {

using test::waitUntil;

// Thread functions take no argument, so the workers below reach their objects and report what they
// saw through these. Each test sets them before it starts a thread.
SlmThread* worker = nullptr;
std::atomic<int> initCalls{0};
std::atomic<int> stopCalls{0};
std::atomic<int> cleanCalls{0};
std::atomic<int> cleanResult{0};
pthread_t initThread;

void resetObservations() {
  worker = nullptr;
  initCalls = 0;
  stopCalls = 0;
  cleanCalls = 0;
  cleanResult = 0;
}

int countingInit() {
  initThread = pthread_self();
  ++initCalls;
  return 0;
}
int failingInit() {
  ++initCalls;
  return 1;
}
int countingStop() {
  ++stopCalls;
  return 0;
}
int countingClean() {
  ++cleanCalls;
  return cleanResult;
}
int idleBody() {
  return 0;
}

int32_t statusOf(SlmThread* thread) {
  int32_t status = -100;
  EXPECT_EQ(kSlmThreadOk, getSlmThreadStatus(thread, &status));
  return status;
}

TEST(SlmThread, CreateRequiresBodyAndSuccessfulInit) {
  resetObservations();
  EXPECT_EQ(nullptr, createSlmThread(countingInit, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, initCalls.load());
  EXPECT_EQ(nullptr, createSlmThread(failingInit, idleBody, nullptr, nullptr));
  EXPECT_EQ(1, initCalls.load());

  SlmThread* thread = createSlmThread(countingInit, idleBody, nullptr, countingClean);
  ASSERT_NE(nullptr, thread);
  EXPECT_EQ(2, initCalls.load());
  EXPECT_TRUE(pthread_equal(initThread, pthread_self()));
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(thread));

  // A failing clean function keeps the object for another try.
  cleanResult = 1;
  EXPECT_EQ(kSlmThreadError, cleanSlmThread(thread));
  cleanResult = 0;
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(thread));
  EXPECT_EQ(2, cleanCalls.load());
}

TEST(SlmThread, OnlyTheThreadClearsItsOwnMark) {
  resetObservations();
  // Never started: this test's thread is not the worker, so it may not leave a stop or busy mark.
  SlmThread* thread = createSlmThread(nullptr, idleBody, nullptr, nullptr);
  ASSERT_NE(nullptr, thread);
  struct Case {
    int32_t from;
    int32_t to;
    int expected;
  };
  const Case cases[] = {
      {SLM_THREAD_STOPPED, SLM_THREAD_BUSY, kSlmThreadError},
      {SLM_THREAD_STOPPED, SLM_THREAD_RUNNING, kSlmThreadError},
      {SLM_THREAD_BUSY, SLM_THREAD_RUNNING, kSlmThreadError},
      {SLM_THREAD_BUSY, SLM_THREAD_STOPPED, kSlmThreadError},
      {SLM_THREAD_RUNNING, SLM_THREAD_BUSY, kSlmThreadOk},
      {SLM_THREAD_RUNNING, SLM_THREAD_STOPPED, kSlmThreadOk},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.from << " -> " << c.to);
    ASSERT_EQ(kSlmThreadOk, forceSetSlmThreadStatus(thread, c.from));
    EXPECT_EQ(c.expected, setSlmThreadStatus(thread, c.to));
    EXPECT_EQ(c.expected == kSlmThreadOk ? c.to : c.from, statusOf(thread));
    // Not running: a sleep ends before it starts.
    if (statusOf(thread) != SLM_THREAD_RUNNING) {
      EXPECT_EQ(kSleepWoken, sleepSlmThread(thread, 600));
    }
  }
  ASSERT_EQ(kSlmThreadOk, forceSetSlmThreadStatus(thread, SLM_THREAD_STOPPED));
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(thread));
}

// What the cooperative worker saw when it was handed work.
std::atomic<int> workHandled{0};
std::atomic<int> sleepWhileBusy{-100};
std::atomic<int> clearBusy{-100};
std::atomic<int> fullSleep{-100};

int cooperativeBody() {
  fullSleep = sleepSlmThread(worker, 0);
  for (;;) {
    sleepSlmThread(worker, 600);
    int32_t status;
    if (getSlmThreadStatus(worker, &status) != kSlmThreadOk) return -1;
    if (status == SLM_THREAD_STOPPED) return 0;
    if (status == SLM_THREAD_BUSY) {
      sleepWhileBusy = sleepSlmThread(worker, 600);
      clearBusy = setSlmThreadStatus(worker, SLM_THREAD_RUNNING);
      ++workHandled;
    }
  }
}

TEST(SlmThread, WorkerIsWokenForWorkAndStopsInTime) {
  resetObservations();
  workHandled = 0;
  fullSleep = -100;
  worker = createSlmThread(nullptr, cooperativeBody, countingStop, countingClean);
  ASSERT_NE(nullptr, worker);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kSlmThreadError, startSlmThread(worker));
  EXPECT_EQ(SLM_THREAD_RUNNING, statusOf(worker));
  EXPECT_EQ(kSlmThreadError, cleanSlmThread(worker));
  EXPECT_EQ(0, cleanCalls.load());

  // Nobody wakes it yet: its first, zero-second sleep runs to the end.
  ASSERT_TRUE(waitUntil([] { return fullSleep.load() != -100; }));
  EXPECT_EQ(kSleepFullTime, fullSleep.load());
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(waitUntil([] { return statusOf(worker) == SLM_THREAD_RUNNING; }));
    ASSERT_EQ(kSlmThreadOk, setSlmThreadStatus(worker, SLM_THREAD_BUSY));
    ASSERT_TRUE(waitUntil([&] { return workHandled.load() == round; }));
  }
  EXPECT_EQ(kSleepWoken, sleepWhileBusy.load());
  EXPECT_EQ(kSlmThreadOk, clearBusy.load());

  EXPECT_EQ(kOsThreadEnded, stopSlmThread(worker));
  EXPECT_EQ(1, stopCalls.load());
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(worker));
  EXPECT_EQ(kNoThreadRunning, isItMe(worker->osThread));
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
  EXPECT_EQ(1, cleanCalls.load());
}

int stubbornBody() {
  // Ignores every wake and every status: only cancellation ends it.
  for (;;) sleepOSThread(worker->osThread, -1);
}

TEST(SlmThread, WorkerThatIgnoresStopIsCancelled) {
  resetObservations();
  worker = createSlmThread(nullptr, stubbornBody, nullptr, nullptr);
  ASSERT_NE(nullptr, worker);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kOsThreadCancelled, stopSlmThread(worker));

  // The cancelled sleep let go of the thread's mutex on its way out.
  ASSERT_EQ(0, pthread_mutex_trylock(&worker->osThread->mutex));
  pthread_mutex_unlock(&worker->osThread->mutex);
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
}

struct RoutineReport {
  OsThread* thread;
  std::atomic<int> selfCheck{-100};
  std::atomic<int> zeroSleep{-100};
  std::atomic<int> wokenSleep{-100};
};

void* reportingRoutine(void* argument) {
  auto* report = static_cast<RoutineReport*>(argument);
  report->selfCheck = isItMe(report->thread);
  report->zeroSleep = sleepOSThread(report->thread, 0);
  report->wokenSleep = sleepOSThread(report->thread, -1);
  return nullptr;
}

TEST(OsThread, IdentitySleepAndWake) {
  OsThread* thread = createOSThread();
  ASSERT_NE(nullptr, thread);
  EXPECT_EQ(kNoThreadRunning, isItMe(thread));
  EXPECT_EQ(kSleepError, sleepOSThread(thread, 0));
  EXPECT_EQ(kOsThreadEnded, stopOSThread(thread));

  RoutineReport report;
  report.thread = thread;
  ASSERT_EQ(kOsThreadOk, startOSThread(thread, reportingRoutine, &report));
  EXPECT_EQ(kOsThreadError, startOSThread(thread, reportingRoutine, &report));
  EXPECT_EQ(kIsNotMe, isItMe(thread));
  EXPECT_EQ(kSleepError, sleepOSThread(thread, 600));
  EXPECT_EQ(kOsThreadError, cleanOSThread(thread));

  ASSERT_TRUE(waitUntil([&] { return report.zeroSleep.load() != -100; }));
  EXPECT_EQ(kSleepFullTime, report.zeroSleep.load());
  // A wake given before the routine waits is lost, so keep waking until it reports.
  ASSERT_TRUE(waitUntil([&] {
    wakeOSThread(thread);
    return report.wokenSleep.load() != -100;
  }));
  EXPECT_EQ(kIsMe, report.selfCheck.load());
  EXPECT_EQ(kSleepWoken, report.wokenSleep.load());

  EXPECT_EQ(kOsThreadEnded, stopOSThread(thread));
  EXPECT_EQ(kNoThreadRunning, isItMe(thread));
  EXPECT_EQ(kOsThreadOk, cleanOSThread(thread));
}

}  // namespace
}  // namespace slm
