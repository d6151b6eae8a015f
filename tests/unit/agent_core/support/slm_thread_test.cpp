#include "agent_core/support/slm_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>

#include "support/wait_until.h"

namespace slm {
namespace {

using test::waitUntil;

// Thread functions take no argument: the workers reach their object and report through these.
struct Seen {
  static inline SlmThread* worker = nullptr;
  static inline std::atomic<int> initCalls, initResult, stopCalls, cleanCalls, cleanResult,
      workHandled, clearBusy;
  static inline std::atomic<bool> holdWork;
  static void reset() {
    worker = nullptr;
    initCalls = initResult = stopCalls = cleanCalls = cleanResult = workHandled = clearBusy = 0;
    holdWork = false;
  }
  static int countingInit() { return ++initCalls, initResult.load(); }
  static int countingStop() { return ++stopCalls, 0; }
  static int countingClean() { return ++cleanCalls, cleanResult.load(); }
  static int idleBody() { return 0; }
};

int32_t statusOf(SlmThread* thread) {
  int32_t status = -100;
  EXPECT_EQ(kSlmThreadOk, getSlmThreadStatus(thread, &status));
  return status;
}

TEST(SlmThread, CreateRequiresBodyAndSuccessfulInit) {
  Seen::reset();
  EXPECT_EQ(nullptr, createSlmThread(Seen::countingInit, nullptr, nullptr, nullptr));
  Seen::initResult = 1;
  EXPECT_EQ(nullptr, createSlmThread(Seen::countingInit, Seen::idleBody, nullptr, nullptr));
  EXPECT_EQ(1, Seen::initCalls.load());
  Seen::initResult = 0;
  SlmThread* thread =
      createSlmThread(Seen::countingInit, Seen::idleBody, nullptr, Seen::countingClean);
  ASSERT_NE(nullptr, thread);
  // A failing clean function keeps the object for another try.
  Seen::cleanResult = 1;
  EXPECT_EQ(kSlmThreadError, cleanSlmThread(thread));
  Seen::cleanResult = 0;
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(thread));
  EXPECT_EQ(2, Seen::cleanCalls.load());
}

TEST(SlmThread, OnlyTheThreadClearsItsOwnMark) {
  // Never started: this test's thread is not the worker, so it may not leave a stop or busy mark.
  SlmThread* thread = createSlmThread(nullptr, Seen::idleBody, nullptr, nullptr);
  const struct {
    int32_t from, to;
    int expected;
  } cases[] = {{SLM_THREAD_STOPPED, SLM_THREAD_RUNNING, kSlmThreadError},
               {SLM_THREAD_BUSY, SLM_THREAD_RUNNING, kSlmThreadError},
               {SLM_THREAD_RUNNING, SLM_THREAD_BUSY, kSlmThreadOk},
               {SLM_THREAD_RUNNING, SLM_THREAD_STOPPED, kSlmThreadOk}};
  for (const auto& c : cases) {
    ASSERT_EQ(kSlmThreadOk, forceSetSlmThreadStatus(thread, c.from));
    EXPECT_EQ(c.expected, setSlmThreadStatus(thread, c.to)) << c.from << " -> " << c.to;
    EXPECT_EQ(c.expected == kSlmThreadOk ? c.to : c.from, statusOf(thread));
    EXPECT_TRUE(statusOf(thread) == SLM_THREAD_RUNNING ||
                sleepSlmThread(thread, 600) == kSleepWoken);
  }
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(thread));
}

int cooperativeBody() {
  for (int32_t status;;) {
    sleepSlmThread(Seen::worker, 600);
    if (getSlmThreadStatus(Seen::worker, &status) || status == SLM_THREAD_STOPPED) return 0;
    if (status == SLM_THREAD_BUSY) {
      ++Seen::workHandled;
      while (Seen::holdWork.load()) sched_yield();
      Seen::clearBusy = clearBusyMark(Seen::worker);
    }
  }
}

TEST(SlmThread, WorkerIsWokenForWorkAndStopsInTime) {
  Seen::reset();
  SlmThread* worker = Seen::worker =
      createSlmThread(nullptr, cooperativeBody, Seen::countingStop, Seen::countingClean);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kSlmThreadError, startSlmThread(worker));
  EXPECT_EQ(kSlmThreadError, cleanSlmThread(worker));
  ASSERT_TRUE(waitUntil([&] { return statusOf(worker) == SLM_THREAD_RUNNING; }));
  Seen::clearBusy = -100;
  ASSERT_EQ(kSlmThreadOk, setSlmThreadStatus(worker, SLM_THREAD_BUSY));
  ASSERT_TRUE(waitUntil([&] { return Seen::clearBusy.load() == kSlmThreadOk; }));
  EXPECT_EQ(1, Seen::workHandled.load());
  EXPECT_EQ(SLM_THREAD_RUNNING, statusOf(worker));
  EXPECT_EQ(kSlmThreadError, clearBusyMark(worker));  // only the worker clears its mark
  // A stop asked for while the worker takes its work is not cleared with the busy mark.
  Seen::holdWork = true;
  ASSERT_EQ(kSlmThreadOk, setSlmThreadStatus(worker, SLM_THREAD_BUSY));
  ASSERT_TRUE(waitUntil([&] { return Seen::workHandled.load() == 2; }));
  ASSERT_EQ(kSlmThreadOk, forceSetSlmThreadStatus(worker, SLM_THREAD_STOPPED));
  Seen::clearBusy = -100;
  Seen::holdWork = false;
  ASSERT_TRUE(waitUntil([&] { return Seen::clearBusy.load() == kNotBusy; }));
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(worker));
  EXPECT_EQ(kOsThreadEnded, stopSlmThread(worker));
  EXPECT_EQ(1, Seen::stopCalls.load());
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(worker));
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
}

int stubbornBody() {
  for (;;) sleepOSThread(Seen::worker->osThread, -1);  // only cancellation ends it
}

TEST(SlmThread, WorkerThatIgnoresStopIsCancelled) {
  Seen::reset();
  SlmThread* worker = Seen::worker = createSlmThread(nullptr, stubbornBody, nullptr, nullptr);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kOsThreadCancelled, stopSlmThread(worker));
  // The cancelled sleep let go of the thread's mutex on its way out.
  ASSERT_EQ(0, pthread_mutex_trylock(&worker->osThread->mutex));
  pthread_mutex_unlock(&worker->osThread->mutex);
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
}

std::atomic<bool> spinnerMayEnd;
std::atomic<int32_t> spinnerSawStatus;

int spinningBody() {
  while (!spinnerMayEnd.load()) {
  }  // reaches no cancellation point
  int32_t status = -1;
  // Touches its object after the stop gave up on it, so a record freed under it shows as an error.
  spinnerSawStatus = getSlmThreadStatus(Seen::worker, &status) == kSlmThreadOk ? status : -1;
  return 0;
}

TEST(SlmThread, WorkerThatCannotBeCancelledIsLetGoWithItsObject) {
  Seen::reset();
  spinnerMayEnd = false;
  spinnerSawStatus = -100;
  SlmThread* worker = Seen::worker = createSlmThread(nullptr, spinningBody, nullptr, nullptr);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kOsThreadCancelled, stopSlmThread(worker));
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
  spinnerMayEnd = true;
  ASSERT_TRUE(waitUntil([] { return spinnerSawStatus.load() != -100; }));
  EXPECT_EQ(SLM_THREAD_STOPPED, spinnerSawStatus.load());
}

struct RoutineReport {
  OsThread* thread;
  std::atomic<int> selfCheck{-100}, zeroSleep{-100}, wokenSleep{-100};
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
  EXPECT_EQ(kNoThreadRunning, isItMe(thread));
  RoutineReport report{thread};
  ASSERT_EQ(kOsThreadOk, startOSThread(thread, reportingRoutine, &report));
  EXPECT_EQ(kIsNotMe, isItMe(thread));
  ASSERT_TRUE(waitUntil([&] { return report.zeroSleep.load() != -100; }));
  EXPECT_EQ(kSleepFullTime, report.zeroSleep.load());
  // A wake given before the routine waits is lost, so keep waking until it reports.
  ASSERT_TRUE(waitUntil([&] { return wakeOSThread(thread), report.wokenSleep.load() != -100; }));
  EXPECT_EQ(kIsMe, report.selfCheck.load());
  EXPECT_EQ(kSleepWoken, report.wokenSleep.load());
  EXPECT_EQ(kOsThreadEnded, stopOSThread(thread));
  EXPECT_EQ(kOsThreadOk, cleanOSThread(thread));
}

}  // namespace
}  // namespace slm
