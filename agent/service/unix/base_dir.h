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
constexpr int kTempDirReady = 0;
constexpr int kTempDirFailed = 1;
// Makes the temporary directory ready for a use: a real directory owned by the agent's user with
// mode 0700, which nobody else can enter, swap or plant a link in. Whatever else stands at its name
// (another owner, other mode bits, a link, a file) is renamed aside with a WARNING and the
// directory is made again. kTempDirReady, or kTempDirFailed after an ERROR line.
[[nodiscard]] int prepareTemporaryDirectory();

int createBaseDir();
int deleteBaseDir();
int checkReqPatches();

// Builds `dir` + "/" + `name` into `out` (a kPathSize buffer), the total kept within 4,094
// characters.
void buildFilePath(char* out, const char* dir, const char* name);

}  // namespace slm
