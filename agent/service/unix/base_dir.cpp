// Fills and creates the agent's directories. "/var/qsam" itself is never created: the installation
// provides it, and its absence is reported as a directory failure.
#include "service/unix/base_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent_core/data/slm_time.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {

char baseDir[kPathSize];
char confDir[kPathSize];
char logDir[kPathSize];
char tempDir[kPathSize];
char cacheDir[kPathSize];
char nlsDir[kPathSize];
char oxiDir[kPathSize];
char driverDir[kPathSize];
char conf_file[kPathSize];
char log_file[kPathSize];

namespace {

constexpr size_t kFilePathMax = 4094;

void fillDir(char* dir, const char* path) {
  rootedPath(path, dir, kPathSize);
}

// Creates one directory; an existing one counts as created.
int makeDir(const char* dir) {
  if (mkdir(dir, 0700) == 0 || errno == EEXIST) return 0;
  printf("ERROR - Couldn't create directory %s, error: %d", dir, errno);
  return 1;
}

constexpr mode_t kTempDirMode = 0700;
// A name taken from under the agent between two looks is looked at again, a few times.
constexpr int kTempDirAttempts = 4;

bool ownedAndPrivate(const struct stat& status) {
  return S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & 07777) == kTempDirMode;
}

// Renames what stands at the temporary directory's name out of the way; the link itself, never
// what it points to.
bool moveAside(const struct stat& status) {
  char aside[kPathSize];
  for (int n = 0; n < kTempDirAttempts; ++n) {
    snprintf(aside, sizeof aside, "%.4000s.aside-%ld-%d", tempDir,
             static_cast<long>(getNowWithOffset(0)), n);
    if (rename(tempDir, aside) == 0) {
      SLM_TRACE(0,
                "WARNING - %s is not a directory only the agent can use (owner %u, mode %04o): "
                "moved aside to %s",
                tempDir, static_cast<unsigned>(status.st_uid),
                static_cast<unsigned>(status.st_mode & 07777), aside);
      return true;
    }
    if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR && errno != EISDIR) break;
  }
  SLM_TRACE(0, "ERROR - Couldn't move %s aside, errno: %d", tempDir, errno);
  return false;
}

}  // namespace

int prepareTemporaryDirectory() {
  bool created = false;
  for (int attempt = 0; attempt < kTempDirAttempts; ++attempt) {
    struct stat status;
    if (lstat(tempDir, &status) == 0) {
      if (ownedAndPrivate(status)) {
        if (!created) SLM_TRACE(2, "OK - Directory %s exists (errno=%d)", tempDir, 0);
        return kTempDirReady;
      }
      if (!moveAside(status)) return kTempDirFailed;
      continue;
    }
    if (errno != ENOENT) {
      SLM_TRACE(0, "ERROR - Could'nt create directory %s, %s %d", tempDir, "error: ", errno);
      return kTempDirFailed;
    }
    SLM_TRACE(3, "OK - Directory %s doesn't exist, need to create (errno=%d)", tempDir, errno);
    if (mkdir(tempDir, kTempDirMode) != 0) {
      if (errno == EEXIST) {
        SLM_TRACE(2,
                  "WARNING - Stat says directory doesn't %s exists but mkdir says it does "
                  "(errno=%d)",
                  tempDir, errno);
        continue;
      }
      SLM_TRACE(0, "ERROR - Could'nt create directory %s, %s %d", tempDir, "error: ", errno);
      return kTempDirFailed;
    }
    // The mode asked of mkdir passes through the umask; nobody else can reach the new name in the
    // sticky temporary directory, so setting it by name is safe.
    (void)chmod(tempDir, kTempDirMode);
    SLM_TRACE(2, "OK - Directory %s created (errno=%d)", tempDir, 0);
    created = true;
  }
  SLM_TRACE(0, "ERROR - %s keeps being taken: no directory only the agent can use", tempDir);
  return kTempDirFailed;
}

int getBaseDir() {
  fillDir(baseDir, "/");
  return 0;
}

int buildDirs() {
  fillDir(confDir, "/etc");
  fillDir(logDir, "/var/qsam/log");
  if (makeDir(logDir) != 0) return 1;
  fillDir(tempDir, "/tmp/qsam");
  if (makeDir(tempDir) != 0) return 1;
  fillDir(cacheDir, "/var/qsam/cache");
  if (makeDir(cacheDir) != 0) return 1;
  fillDir(nlsDir, "/var/qsam/nls/%L/%N.cat");
  fillDir(oxiDir, "/var/qsam/codeset");
  fillDir(driverDir, "/lib/modules/");
  return 0;
}

int createBaseDir() {
  return 0;
}
int deleteBaseDir() {
  return 0;
}
int checkReqPatches() {
  return 0;
}

void buildFilePath(char* out, const char* dir, const char* name) {
  copyBounded(out, kFilePathMax, dir);
  strncat(out, "/", kFilePathMax - strlen(out));
  strncat(out, name, kFilePathMax - strlen(out));
  out[kFilePathMax] = '\0';
}

}  // namespace slm
