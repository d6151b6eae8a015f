// The agent's fixed directory layout. Each directory is a 4,096-character buffer holding its path
// resolved under the agent root; `buildDirs` fills them and creates the ones the agent owns.
#pragma once

#include <cstddef>

namespace slm {

constexpr size_t kPathSize = 4096;

extern char baseDir[kPathSize];
extern char confDir[kPathSize];
extern char logDir[kPathSize];
extern char tempDir[kPathSize];
extern char cacheDir[kPathSize];
extern char nlsDir[kPathSize];
extern char oxiDir[kPathSize];
extern char driverDir[kPathSize];

extern char conf_file[kPathSize];
extern char log_file[kPathSize];

constexpr const char* kConfFileName = "kvdagent.ini";
constexpr const char* kTraceFileName = "traceagt.log";

int getBaseDir();
// Fills the directories and creates the log, temporary and cache directories (mode 0700, one
// level each). 0 on success; 1 on the first failure, after printing which directory failed.
int buildDirs();
int createBaseDir();
int deleteBaseDir();
int checkReqPatches();

// Builds `dir` + "/" + `name` into `out` (a kPathSize buffer), the total kept within 4,094
// characters.
void buildFilePath(char* out, const char* dir, const char* name);

}  // namespace slm
