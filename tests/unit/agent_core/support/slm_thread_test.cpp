#include "agent_core/support/slm_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>

#include "support/wait_until.h"

namespace slm {
namespace {

using test::waitUntil;

// Thread functions take no argument, so the workers below reach their object and report what they
// saw through these. Each test resets them before it creates a thread.
struct Seen {
  static inline SlmThread* worker = nullptr;
  static inline pthread_t initThread;
  static inline std::atomic<int> initCalls, initResult, stopCalls, cleanCalls, cleanResult,
      workHandled;
  // What the cooperative worker's sleeps and its status change gave; -100 until it reports.
  static inline std::atomic<int> fullSleep, sleepWhileBusy, clearBusy;

  static void reset() {
    worker = nullptr;
    initCalls = initResult = stopCalls = cleanCalls = cleanResult = workHandled = 0;
    fullSleep = sleepWhileBusy = clearBusy = -100;
  }
  static int countingInit() {
    initThread = pthread_self();
    ++initCalls;
    return initResult;
  }
  static int countingStop() {
    ++stopCalls;
    return 0;
  }
  static int countingClean() {
    ++cleanCalls;
    return cleanResult;
  }
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
  EXPECT_EQ(0, Seen::initCalls.load());
  Seen::initResult = 1;
  EXPECT_EQ(nullptr, createSlmThread(Seen::countingInit, Seen::idleBody, nullptr, nullptr));
  EXPECT_EQ(1, Seen::initCalls.load());
  Seen::initResult = 0;

  SlmThread* thread =
      createSlmThread(Seen::countingInit, Seen::idleBody, nullptr, Seen::countingClean);
  ASSERT_NE(nullptr, thread);
  EXPECT_EQ(2, Seen::initCalls.load());
  EXPECT_TRUE(pthread_equal(Seen::initThread, pthread_self()));
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(thread));

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

int cooperativeBody() {
  SlmThread* self = Seen::worker;
  Seen::fullSleep = sleepSlmThread(self, 0);
  for (;;) {
    sleepSlmThread(self, 600);
    int32_t status;
    if (getSlmThreadStatus(self, &status) != kSlmThreadOk) return -1;
    if (status == SLM_THREAD_STOPPED) return 0;
    if (status == SLM_THREAD_BUSY) {
      Seen::sleepWhileBusy = sleepSlmThread(self, 600);
      Seen::clearBusy = setSlmThreadStatus(self, SLM_THREAD_RUNNING);
      ++Seen::workHandled;
    }
  }
}

TEST(SlmThread, WorkerIsWokenForWorkAndStopsInTime) {
  Seen::reset();
  SlmThread* worker = Seen::worker =
      createSlmThread(nullptr, cooperativeBody, Seen::countingStop, Seen::countingClean);
  ASSERT_NE(nullptr, worker);
  ASSERT_EQ(kSlmThreadOk, startSlmThread(worker));
  EXPECT_EQ(kSlmThreadError, startSlmThread(worker));
  EXPECT_EQ(SLM_THREAD_RUNNING, statusOf(worker));
  EXPECT_EQ(kSlmThreadError, cleanSlmThread(worker));
  EXPECT_EQ(0, Seen::cleanCalls.load());

  // Nobody wakes it yet: its first, zero-second sleep runs to the end.
  ASSERT_TRUE(waitUntil([] { return Seen::fullSleep.load() != -100; }));
  EXPECT_EQ(kSleepFullTime, Seen::fullSleep.load());
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(waitUntil([&] { return statusOf(worker) == SLM_THREAD_RUNNING; }));
    ASSERT_EQ(kSlmThreadOk, setSlmThreadStatus(worker, SLM_THREAD_BUSY));
    ASSERT_TRUE(waitUntil([&] { return Seen::workHandled.load() == round; }));
  }
  EXPECT_EQ(kSleepWoken, Seen::sleepWhileBusy.load());
  EXPECT_EQ(kSlmThreadOk, Seen::clearBusy.load());

  EXPECT_EQ(kOsThreadEnded, stopSlmThread(worker));
  EXPECT_EQ(1, Seen::stopCalls.load());
  EXPECT_EQ(SLM_THREAD_STOPPED, statusOf(worker));
  EXPECT_EQ(kNoThreadRunning, isItMe(worker->osThread));
  EXPECT_EQ(kSlmThreadOk, cleanSlmThread(worker));
  EXPECT_EQ(1, Seen::cleanCalls.load());
}

// Ignores every wake and every status: only cancellation ends it.
int stubbornBody() {
  for (;;) sleepOSThread(Seen::worker->osThread, -1);
}

TEST(SlmThread, WorkerThatIgnoresStopIsCancelled) {
  Seen::reset();
  SlmThread* worker = Seen::worker = createSlmThread(nullptr, stubbornBody, nullptr, nullptr);
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

  RoutineReport report{thread};
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
