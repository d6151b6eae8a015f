// The root seam: every fixed absolute path of the agent resolves under one root directory, "/"
// unless the environment variable KVDAGENT_ROOT names another. With root R the agent behaves as it
// would with R as "/", which is how tests and the demo run the real binary in a sandbox.
#pragma once

#include <cstddef>
#include <string>

namespace slm {

// The root directory in force, without a trailing slash ("" for "/"). Read once from the
// environment; `setAgentRoot` replaces it (tests).
const std::string& agentRoot();
void setAgentRoot(const char* root);

// Writes the absolute path `path` resolved under the root into `out` (at most `outSize` - 1
// characters, always terminated). Returns `out`. A relative path is left as it is.
char* rootedPath(const char* path, char* out, size_t outSize);
std::string rootedPath(const char* path);

}  // namespace slm
