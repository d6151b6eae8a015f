// Fills and creates the agent's directories. "/var/qsam" itself is never created: the installation
// provides it, and its absence is reported as a directory failure.
#include "service/unix/base_dir.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent_core/support/bytes.h"
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

}  // namespace

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
