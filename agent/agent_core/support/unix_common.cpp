// Resolution of the agent's fixed paths under the root directory.
#include "agent_core/support/unix_common.h"

#include <cstdlib>
#include <cstring>

#include "agent_core/support/bytes.h"

namespace slm {
namespace {

std::string normalizedRoot(const char* root) {
  std::string value = root == nullptr ? "" : root;
  while (!value.empty() && value.back() == '/') value.pop_back();
  return value;
}

std::string& rootSlot() {
  static std::string root = normalizedRoot(getenv("KVDAGENT_ROOT"));
  return root;
}

}  // namespace

const std::string& agentRoot() {
  return rootSlot();
}

void setAgentRoot(const char* root) {
  rootSlot() = normalizedRoot(root);
}

std::string rootedPath(const char* path) {
  if (path == nullptr) return agentRoot();
  if (path[0] != '/') return path;
  return agentRoot() + path;
}

// Built in `out` alone, so that resolving a path cannot fail for want of memory.
char* rootedPath(const char* path, char* out, size_t outSize) {
  if (outSize == 0) return out;
  bool relative = path != nullptr && path[0] != '/';
  size_t length = strlen(copyBounded(out, outSize - 1, relative ? "" : agentRoot().c_str()));
  copyBounded(out + length, outSize - 1 - length, path);
  return out;
}

}  // namespace slm
