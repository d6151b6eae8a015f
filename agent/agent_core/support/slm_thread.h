// Agent threads: a worker with a status word that other threads use to stop it or hand it work, and
// a sleep that such a status change cuts short. Built on a thin layer over POSIX threads (the OS
// thread), which owns the thread identity and the mutex and condition used for sleeping and waking.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "agent_core/support/slm_lock.h"

namespace slm {

// The routine an OS thread runs; it receives the argument given to startOSThread.
using OsThreadRoutine = void* (*)(void*);

// Written only by the thread that starts and stops it (and by the started thread itself, which
// records its own identity); read by any thread through isItMe.
struct OsThread {
  std::atomic<bool> running;  // a thread was started and has not been stopped yet
  std::atomic<pthread_t> id;
  OsThreadRoutine routine;
  void* argument;
  pthread_cond_t wakeCond;  // with `mutex`: sleeping and waking
  pthread_mutex_t mutex;
  // A thread that outlives its stop and its cancel is let go while it still runs on this record;
  // then whichever comes last, its end or the clean, frees the record. Flags of slm_thread.cpp.
  std::atomic<int> handOff;
  // What freeing the record means: null frees the OS thread alone; an object that embeds the
  // record frees itself and the record.
  void (*release)(void*);
  void* releaseArgument;
};

constexpr int kOsThreadOk = 0;
constexpr int kOsThreadError = -1;

// Null when memory is short.
OsThread* createOSThread();
// Starts `routine(argument)` on a new thread. 0, or -1 when a thread is still recorded or the start
// fails.
[[nodiscard]] int startOSThread(OsThread* thread, OsThreadRoutine routine, void* argument);

constexpr int kOsThreadEnded = 0;      // the thread ended by itself (or none was running)
constexpr int kOsThreadCancelled = 1;  // it did not end within the grace time and was cancelled
// Gives the thread kStopGraceSeconds to end, then cancels it; a thread that has not unwound shortly
// after the cancel (it reaches no cancellation point) is let go. 0, 1, or -1 on error. The record
// cannot be started again once its thread was let go.
int stopOSThread(OsThread* thread);
constexpr int kStopGraceSeconds = 3;

// Frees the record, or leaves it to a thread that was let go and still runs. -1, and the record
// stays allocated, while a thread is recorded as running.
int cleanOSThread(OsThread* thread);
// Wakes the thread if it is sleeping; a wake given while it is not sleeping is lost. 0 or -1.
int wakeOSThread(OsThread* thread);

constexpr int kSleepFullTime = 0;
constexpr int kSleepWoken = 1;
constexpr int kSleepError = -1;
// Only the thread itself may sleep on its record (-1 otherwise). Negative `seconds` sleeps until
// woken. Any wake-up ends the sleep. A cancellation point.
int sleepOSThread(OsThread* thread, int32_t seconds);

constexpr int kIsMe = 1;
constexpr int kIsNotMe = 0;
constexpr int kNoThreadRunning = -1;
int isItMe(OsThread* thread);

// Thread functions take no argument: each worker reaches its thread object through its own handle.
using SlmThreadFunction = int (*)();

constexpr int32_t SLM_THREAD_RUNNING = 0;
constexpr int32_t SLM_THREAD_STOPPED = 1;
constexpr int32_t SLM_THREAD_BUSY = 2;

// `status` is guarded by `statusMutex`; the functions and the OS thread are fixed at creation.
struct SlmThread {
  SlmThreadFunction init;   // run once by createSlmThread in the creating thread; non-zero fails
  SlmThreadFunction body;   // required
  SlmThreadFunction stop;   // optional: asks the body to give up its current work
  SlmThreadFunction clean;  // optional: non-zero fails cleanSlmThread
  OsThread* osThread;
  int32_t status;
  SlmMutex* statusMutex;
};

constexpr int kSlmThreadOk = 0;
constexpr int kSlmThreadError = -1;

// Null without a body, when memory is short, or when `init` fails (nothing is left to clean then).
SlmThread* createSlmThread(SlmThreadFunction init, SlmThreadFunction body, SlmThreadFunction stop,
                           SlmThreadFunction clean);
// Requires SLM_THREAD_STOPPED; the status is SLM_THREAD_RUNNING afterwards. 0 or -1.
[[nodiscard]] int startSlmThread(SlmThread* thread);
// Sets SLM_THREAD_STOPPED (waking the thread), calls the stop function, then waits for the thread
// to end as stopOSThread does. 0 when it ended by itself, 1 when it was cancelled or the status
// could not be set, -1 on error.
int stopSlmThread(SlmThread* thread);
// Requires SLM_THREAD_STOPPED and a clean function that succeeds (-1 otherwise, the object kept);
// then frees the object, or leaves it to a thread that was let go, and returns 0.
int cleanSlmThread(SlmThread* thread);
// 1 at once when the status is not SLM_THREAD_RUNNING; otherwise as sleepOSThread, except that a
// status change just before the sleep still ends it at once.
int sleepSlmThread(SlmThread* thread, int32_t seconds);

// Status access takes the status mutex with kStatusLockTries tries (about as many seconds).
constexpr int32_t kStatusLockTries = 1000;
[[nodiscard]] int getSlmThreadStatus(SlmThread* thread, int32_t* status);
// While the status is SLM_THREAD_RUNNING anyone may set any value; otherwise only the thread itself
// may, and only SLM_THREAD_RUNNING. Wakes the thread unless the caller is the thread. 0 or -1.
int setSlmThreadStatus(SlmThread* thread, int32_t status);
// Sets any value unconditionally, waking the thread unless the caller is the thread. 0 or -1.
int forceSetSlmThreadStatus(SlmThread* thread, int32_t status);
// The worker's own way back from SLM_THREAD_BUSY once it has taken its new work: in one step under
// the status mutex, so that a stop request made since the worker saw the mark is never cleared
// with it. 0 when the mark was cleared, 1 when the status was not SLM_THREAD_BUSY (left as it is),
// -1 on error or when the caller is not the thread.
constexpr int kNotBusy = 1;
int clearBusyMark(SlmThread* thread);

}  // namespace slm
