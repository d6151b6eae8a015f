// Agent threads and the OS thread layer under them. Threads are joinable: stopping one waits for it
// with a bounded join and cancels it only when the grace time has passed. Lock order: a sleeping
// thread holds its OS thread mutex while it reads its status (so that a status change made just
// before the sleep is not lost); status setters release the status mutex before they wake.
#include "agent_core/support/slm_thread.h"

#include <cerrno>
#include <ctime>
#include <new>

namespace slm {
namespace {

// How long a cancelled thread is given to unwind before it is let go. A thread waiting at a
// cancellation point unwinds at once; one that reaches none would not end within any bound.
constexpr long kCancelUnwindNanoseconds = 250'000'000;

// OsThread::handOff flags.
constexpr int kLetGo = 1;    // detached by stopOSThread while it still ran
constexpr int kEnded = 2;    // the thread has left its routine
constexpr int kCleaned = 4;  // cleanOSThread has given the record up

// Sleeping and waking keep deferred cancellation, so a cancel acts only at the wait itself.
class DeferredCancel {
 public:
  DeferredCancel() { pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &previous_); }
  ~DeferredCancel() { pthread_setcanceltype(previous_, nullptr); }
  DeferredCancel(const DeferredCancel&) = delete;
  DeferredCancel& operator=(const DeferredCancel&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_DEFERRED;
};

timespec clockAfter(clockid_t clock, int32_t seconds, long nanoseconds = 0) {
  timespec when{};
  clock_gettime(clock, &when);
  when.tv_sec += seconds;
  when.tv_nsec += nanoseconds;
  if (when.tv_nsec >= 1'000'000'000) {
    when.tv_sec += 1;
    when.tv_nsec -= 1'000'000'000;
  }
  return when;
}

void destroyOsThread(OsThread* thread) {
  pthread_cond_destroy(&thread->wakeCond);
  pthread_mutex_destroy(&thread->mutex);
  delete thread;
}

void releaseRecord(OsThread* thread) {
  if (thread->release != nullptr) {
    thread->release(thread->releaseArgument);
  } else {
    destroyOsThread(thread);
  }
}

// Runs as the thread leaves its routine, also when a cancel unwinds it.
class EndOfThread {
 public:
  explicit EndOfThread(OsThread* thread) : thread_(thread) {}
  ~EndOfThread() {
    if (thread_->handOff.fetch_or(kEnded) & kCleaned) releaseRecord(thread_);
  }
  EndOfThread(const EndOfThread&) = delete;
  EndOfThread& operator=(const EndOfThread&) = delete;

 private:
  OsThread* thread_;
};

void* runOsThread(void* argument) {
  auto* thread = static_cast<OsThread*>(argument);
  // Recorded here as well as by the starter, so that the routine's first isItMe already knows it.
  thread->id.store(pthread_self());
  EndOfThread end(thread);
  return thread->routine(thread->argument);
}

// Waits on a joinable thread until `deadline` (real-time clock). 0, ETIMEDOUT or an error number.
int joinUntil(pthread_t id, void** result, const timespec& deadline) {
  int rc;
  do {
    rc = pthread_timedjoin_np(id, result, &deadline);
  } while (rc == EINTR);
  return rc;
}

// The sleep of sleepOSThread. With an `owner`, its status is read under the OS thread mutex first
// and anything but SLM_THREAD_RUNNING ends the sleep before it starts.
int sleepOn(OsThread* thread, int32_t seconds, SlmThread* owner) {
  if (thread == nullptr || isItMe(thread) != kIsMe) return kSleepError;
  pthread_testcancel();
  int result;
  {
    DeferredCancel deferred;
    if (pthread_mutex_lock(&thread->mutex) != 0) return kSleepError;
    MutexUnlocker unlocker(&thread->mutex);
    if (owner != nullptr) {
      int32_t status;
      if (getSlmThreadStatus(owner, &status) != kSlmThreadOk) return kSleepError;
      if (status != SLM_THREAD_RUNNING) return kSleepWoken;
    }
    int rc;
    if (seconds < 0) {
      rc = pthread_cond_wait(&thread->wakeCond, &thread->mutex);
    } else {
      timespec deadline = clockAfter(CLOCK_MONOTONIC, seconds);
      rc = pthread_cond_timedwait(&thread->wakeCond, &thread->mutex, &deadline);
    }
    result = rc == 0 ? kSleepWoken : rc == ETIMEDOUT ? kSleepFullTime : kSleepError;
  }
  pthread_testcancel();
  return result;
}

void* runSlmThreadBody(void* argument) {
  static_cast<SlmThread*>(argument)->body();
  return nullptr;
}

// Stores `status`; with `guarded`, only the transitions setSlmThreadStatus allows. Then wakes the
// thread unless the caller is the thread.
int storeStatus(SlmThread* thread, int32_t status, bool guarded) {
  if (thread == nullptr) return kSlmThreadError;
  if (lockMutexTimeout(thread->statusMutex, kStatusLockTries) != kMutexAcquired)
    return kSlmThreadError;
  bool self = isItMe(thread->osThread) == kIsMe;
  bool allowed =
      !guarded || thread->status == SLM_THREAD_RUNNING || (self && status == SLM_THREAD_RUNNING);
  if (allowed) thread->status = status;
  unlockMutex(thread->statusMutex);
  if (!allowed) return kSlmThreadError;
  if (!self) wakeOSThread(thread->osThread);
  return kSlmThreadOk;
}

void destroySlmThread(void* argument) {
  auto* thread = static_cast<SlmThread*>(argument);
  if (thread->osThread != nullptr) destroyOsThread(thread->osThread);
  deleteMutex(thread->statusMutex);
  delete thread;
}

// The OS thread record decides when the object goes, since a thread that was let go still uses
// both. While a thread is recorded as running the object stays allocated rather than freed under
// it.
void freeSlmThread(SlmThread* thread) {
  if (thread->osThread == nullptr) {
    destroySlmThread(thread);
    return;
  }
  thread->osThread->release = destroySlmThread;
  thread->osThread->releaseArgument = thread;
  cleanOSThread(thread->osThread);
}

}  // namespace

OsThread* createOSThread() {
  auto* thread = new (std::nothrow) OsThread{};
  if (thread == nullptr) return nullptr;
  if (pthread_mutex_init(&thread->mutex, nullptr) != 0) {
    delete thread;
    return nullptr;
  }
  // Sleeps measure on the monotonic clock, so that setting the system time does not stretch them.
  pthread_condattr_t attributes;
  bool ok = pthread_condattr_init(&attributes) == 0;
  if (ok) {
    ok = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 &&
         pthread_cond_init(&thread->wakeCond, &attributes) == 0;
    pthread_condattr_destroy(&attributes);
  }
  if (!ok) {
    pthread_mutex_destroy(&thread->mutex);
    delete thread;
    return nullptr;
  }
  return thread;
}

int startOSThread(OsThread* thread, OsThreadRoutine routine, void* argument) {
  if (thread == nullptr || routine == nullptr || thread->running.load() ||
      (thread->handOff.load() & kLetGo) != 0)
    return kOsThreadError;
  thread->handOff.store(0);
  thread->routine = routine;
  thread->argument = argument;
  thread->running.store(true);
  pthread_t id;
  if (pthread_create(&id, nullptr, runOsThread, thread) != 0) {
    thread->running.store(false);
    return kOsThreadError;
  }
  thread->id.store(id);
  return kOsThreadOk;
}

int stopOSThread(OsThread* thread) {
  if (thread == nullptr) return kOsThreadError;
  if (!thread->running.load()) return kOsThreadEnded;
  pthread_t id = thread->id.load();
  if (pthread_equal(id, pthread_self())) return kOsThreadError;

  int rc = joinUntil(id, nullptr, clockAfter(CLOCK_REALTIME, kStopGraceSeconds));
  if (rc == 0) {
    thread->running.store(false);
    return kOsThreadEnded;
  }
  if (rc != ETIMEDOUT) return kOsThreadError;

  rc = pthread_cancel(id);
  if (rc != 0 && rc != ESRCH) return kOsThreadError;
  void* exitValue = nullptr;
  rc = joinUntil(id, &exitValue, clockAfter(CLOCK_REALTIME, 0, kCancelUnwindNanoseconds));
  if (rc == 0) {
    thread->running.store(false);
    // It may have ended by itself between the grace time and the cancel.
    return exitValue == PTHREAD_CANCELED ? kOsThreadCancelled : kOsThreadEnded;
  }
  // It reaches no cancellation point: it is let go, as a cancelled thread is, and keeps its record.
  thread->handOff.fetch_or(kLetGo);
  pthread_detach(id);
  thread->running.store(false);
  return kOsThreadCancelled;
}

int cleanOSThread(OsThread* thread) {
  if (thread == nullptr || thread->running.load()) return kOsThreadError;
  if ((thread->handOff.load() & kLetGo) != 0 && (thread->handOff.fetch_or(kCleaned) & kEnded) == 0)
    return kOsThreadOk;
  releaseRecord(thread);
  return kOsThreadOk;
}

int wakeOSThread(OsThread* thread) {
  if (thread == nullptr) return kOsThreadError;
  DeferredCancel deferred;
  if (pthread_mutex_lock(&thread->mutex) != 0) return kOsThreadError;
  MutexUnlocker unlocker(&thread->mutex);
  return pthread_cond_signal(&thread->wakeCond) == 0 ? kOsThreadOk : kOsThreadError;
}

int sleepOSThread(OsThread* thread, int32_t seconds) {
  return sleepOn(thread, seconds, nullptr);
}

int isItMe(OsThread* thread) {
  if (thread == nullptr || !thread->running.load()) return kNoThreadRunning;
  return pthread_equal(thread->id.load(), pthread_self()) ? kIsMe : kIsNotMe;
}

SlmThread* createSlmThread(SlmThreadFunction init, SlmThreadFunction body, SlmThreadFunction stop,
                           SlmThreadFunction clean) {
  if (body == nullptr) return nullptr;
  auto* thread =
      new (std::nothrow) SlmThread{init, body, stop, clean, nullptr, SLM_THREAD_STOPPED, nullptr};
  if (thread == nullptr) return nullptr;
  thread->osThread = createOSThread();
  thread->statusMutex = createMutex();
  if (thread->osThread == nullptr || thread->statusMutex == nullptr ||
      (init != nullptr && init() != 0)) {
    freeSlmThread(thread);
    return nullptr;
  }
  return thread;
}

int startSlmThread(SlmThread* thread) {
  if (thread == nullptr) return kSlmThreadError;
  if (lockMutexTimeout(thread->statusMutex, kStatusLockTries) != kMutexAcquired)
    return kSlmThreadError;
  bool stopped = thread->status == SLM_THREAD_STOPPED;
  if (stopped) thread->status = SLM_THREAD_RUNNING;
  unlockMutex(thread->statusMutex);
  if (!stopped) return kSlmThreadError;
  if (startOSThread(thread->osThread, runSlmThreadBody, thread) != kOsThreadOk) {
    forceSetSlmThreadStatus(thread, SLM_THREAD_STOPPED);
    return kSlmThreadError;
  }
  return kSlmThreadOk;
}

int stopSlmThread(SlmThread* thread) {
  if (thread == nullptr) return kSlmThreadError;
  bool statusFailed = forceSetSlmThreadStatus(thread, SLM_THREAD_STOPPED) != kSlmThreadOk;
  if (thread->stop != nullptr) thread->stop();
  int rc = stopOSThread(thread->osThread);
  if (rc == kOsThreadError) return kSlmThreadError;
  return rc == kOsThreadCancelled || statusFailed ? kOsThreadCancelled : kOsThreadEnded;
}

int cleanSlmThread(SlmThread* thread) {
  if (thread == nullptr) return kSlmThreadError;
  int32_t status;
  if (getSlmThreadStatus(thread, &status) != kSlmThreadOk || status != SLM_THREAD_STOPPED)
    return kSlmThreadError;
  if (thread->clean != nullptr && thread->clean() != 0) return kSlmThreadError;
  // A record whose thread is still running stays allocated rather than freed under it.
  freeSlmThread(thread);
  return kSlmThreadOk;
}

int sleepSlmThread(SlmThread* thread, int32_t seconds) {
  if (thread == nullptr) return kSleepError;
  int32_t status;
  if (getSlmThreadStatus(thread, &status) != kSlmThreadOk) return kSleepError;
  if (status != SLM_THREAD_RUNNING) return kSleepWoken;
  return sleepOn(thread->osThread, seconds, thread);
}

int getSlmThreadStatus(SlmThread* thread, int32_t* status) {
  if (thread == nullptr || status == nullptr) return kSlmThreadError;
  if (lockMutexTimeout(thread->statusMutex, kStatusLockTries) != kMutexAcquired)
    return kSlmThreadError;
  *status = thread->status;
  unlockMutex(thread->statusMutex);
  return kSlmThreadOk;
}

int setSlmThreadStatus(SlmThread* thread, int32_t status) {
  return storeStatus(thread, status, true);
}

int forceSetSlmThreadStatus(SlmThread* thread, int32_t status) {
  return storeStatus(thread, status, false);
}

int clearBusyMark(SlmThread* thread) {
  if (thread == nullptr || isItMe(thread->osThread) != kIsMe) return kSlmThreadError;
  if (lockMutexTimeout(thread->statusMutex, kStatusLockTries) != kMutexAcquired)
    return kSlmThreadError;
  const bool busy = thread->status == SLM_THREAD_BUSY;
  if (busy) thread->status = SLM_THREAD_RUNNING;
  unlockMutex(thread->statusMutex);
  return busy ? kSlmThreadOk : kNotBusy;
}

}  // namespace slm
