// The daemon frame. The main thread only waits for the stop flag, which the SIGTERM handler sets;
// the worker threads do the agent's work between initialisation and finalisation. The handler does
// only what is safe in a signal handler: it sets the flag and posts the semaphore the main thread
// sleeps on.
#include "service/unix/sys_service.h"

#include <pthread.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "agent_core/support/trace.h"
#include "kernel/linux/agent/driver_check.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/service.h"

namespace slm {
namespace {

volatile sig_atomic_t stop = 0;
// Posted by the SIGTERM handler; the main thread sleeps on it.
sem_t stopPosted;
// Held by the main thread while it waits, as the frame always has; nothing else takes it.
pthread_mutex_t mutex;

// Fixed step numbers of the "Failure at file" lines, so that a report from the field names the
// step.
constexpr int kStepStopSemaphore = 220;
constexpr int kStepMutex = 225;
constexpr int kStepLock = 231;
constexpr int kStepInitialization = 245;

void reportFailure(int step) {
  fprintf(stderr, "Failure at file: %s, line: %d\n", __FILE__, step);
}

// Sleeps until the stop flag is set. A signal that arrives between the flag test and the wait has
// already posted the semaphore, so the wait returns at once and no timed wake-up is needed.
void waitForStop() {
  while (!stop) sem_wait(&stopPosted);
}

}  // namespace

int raiseDescriptorLimit() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return errno;
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < kWantedDescriptors) {
    // Only a privileged process may raise its hard limit; any other keeps the one it has.
    const struct rlimit wanted = {kWantedDescriptors, kWantedDescriptors};
    if (setrlimit(RLIMIT_NOFILE, &wanted) == 0) return 0;
  }
  // No process may have an unlimited soft limit on descriptors: under an unlimited hard one the
  // soft one goes to kWantedDescriptors.
  const rlim_t soft = limit.rlim_max != RLIM_INFINITY
                          ? limit.rlim_max
                          : std::max<rlim_t>(limit.rlim_cur, kWantedDescriptors);
  if (limit.rlim_cur >= soft) return 0;
  limit.rlim_cur = soft;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? 0 : errno;
}

void stopHandler(int) {
  int savedErrno = errno;
  stop = 1;
  sem_post(&stopPosted);
  signal(SIGTERM, stopHandler);
  errno = savedErrno;
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

  if (sem_init(&stopPosted, 0, 0) != 0) {
    reportFailure(kStepStopSemaphore);
    return kExitDaemonSetup;
  }
  if (pthread_mutex_init(&mutex, nullptr) != 0) {
    reportFailure(kStepMutex);
    sem_destroy(&stopPosted);
    return kExitDaemonSetup;
  }
  if (pthread_mutex_lock(&mutex) != 0) {
    reportFailure(kStepLock);
    pthread_mutex_destroy(&mutex);
    sem_destroy(&stopPosted);
    return kExitDaemonSetup;
  }

  signal(SIGTERM, stopHandler);
  const int raised = raiseDescriptorLimit();

  if (serviceInitialization() != 0) {
    reportFailure(kStepInitialization);
    return kExitOk;
  }
  if (raised != 0) SLM_TRACE(0, "WARNING - Descriptor limit not raised, error %d", raised);

  waitForStop();

  serviceFinalization();
  cleanSlmDeviceFileName();
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  sem_destroy(&stopPosted);
  return kExitOk;
}

}  // namespace slm

namespace slm {

int serviceRemove() {
  return dectivateOldKvdDrivers() != kDriverFailed ? kExitOk : kExitFailure;
}

}  // namespace slm
