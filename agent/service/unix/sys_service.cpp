// The daemon frame. The main thread only waits for the stop flag, which the SIGTERM handler sets;
// the worker threads do the agent's work between initialisation and finalisation.
#include "service/unix/sys_service.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "service/service.h"

namespace slm {
namespace {

volatile sig_atomic_t stop = 0;
pthread_cond_t condVar;
pthread_mutex_t mutex;

// Fixed step numbers of the "Failure at file" lines, so that a report from the field names the
// step.
constexpr int kStepCondVar = 220;
constexpr int kStepMutex = 225;
constexpr int kStepLock = 231;
constexpr int kStepInitialization = 245;

void reportFailure(int step) {
  fprintf(stderr, "Failure at file: %s, line: %d\n", __FILE__, step);
}

// Waits until the stop flag is set. The wait wakes every second as well, so that a signal that
// arrives between the flag test and the wait is never lost.
void waitForStop() {
  while (!stop) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
    pthread_cond_timedwait(&condVar, &mutex, &deadline);
  }
}

}  // namespace

void stopHandler(int) {
  stop = 1;
  pthread_cond_signal(&condVar);
  signal(SIGTERM, stopHandler);
}

int serviceMain() {
  pid_t child = fork();
  if (child < 0) {
    fprintf(stderr, "Error while forking\n");
    return kExitDaemonSetup;
  }
  if (child > 0) return kExitOk;

  if (setsid() < 0) {
    if (errno == EPERM) {
      fprintf(stderr, "You don't have the authority to run this as a daemon\n");
    } else {
      fprintf(stderr, "Unknown errorwhile creating daemon\n");
    }
    return kExitDaemonSetup;
  }

  if (pthread_cond_init(&condVar, nullptr) != 0) {
    reportFailure(kStepCondVar);
    return kExitDaemonSetup;
  }
  if (pthread_mutex_init(&mutex, nullptr) != 0) {
    reportFailure(kStepMutex);
    pthread_cond_destroy(&condVar);
    return kExitDaemonSetup;
  }
  if (pthread_mutex_lock(&mutex) != 0) {
    reportFailure(kStepLock);
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&condVar);
    return kExitDaemonSetup;
  }

  signal(SIGTERM, stopHandler);

  if (serviceInitialization() != 0) {
    reportFailure(kStepInitialization);
    return kExitOk;
  }

  waitForStop();

  serviceFinalization();
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  pthread_cond_destroy(&condVar);
  return kExitOk;
}

}  // namespace slm

namespace slm {

// The kernel-driver management that deactivates old drivers is not part of this build, so a removal
// run cannot succeed yet and reports the failure.
int serviceRemove() {
  return kExitFailure;
}

}  // namespace slm
