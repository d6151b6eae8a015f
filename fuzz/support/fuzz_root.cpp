#include "support/fuzz_root.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm::fuzz {
namespace {

std::string makeRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvdagent-fuzz-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  for (const char* directory : {"var/qsam/cache", "var/qsam/log", "tmp/qsam", "etc"}) {
    std::filesystem::create_directories(std::filesystem::path(pattern) / directory);
  }
  setAgentRoot(pattern.c_str());
  startTrace((pattern + "/var/qsam/log/traceagt.log").c_str());
  setTraceLevel(3);
  return pattern;
}

}  // namespace

const std::string& fuzzRoot() {
  // Never destroyed: the exit handler below still needs it after static objects are gone.
  static const std::string* const root = [] {
    auto* made = new std::string(makeRoot());
    // Only the process that made the root removes it: a forked shell runner's child must not.
    static const pid_t owner = getpid();
    atexit([] {
      if (getpid() != owner) return;
      stopTrace();
      std::error_code ignored;
      std::filesystem::remove_all(fuzzRoot(), ignored);
    });
    return made;
  }();
  return *root;
}

std::string rootFile(const std::string& relative) {
  return fuzzRoot() + "/" + relative;
}

void writeRootFile(const std::string& relative, const uint8_t* data, size_t size) {
  const std::string path = rootFile(relative);
  // A new file rather than a truncated one, as the agent's own writers do.
  std::remove(path.c_str());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  if (!out) checkFailed("the input file could not be written", __FILE__, __LINE__);
}

std::string readRootFile(const std::string& relative) {
  std::ifstream in(rootFile(relative), std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void removeRootFile(const std::string& relative) {
  std::remove(rootFile(relative).c_str());
}

bool rootFileExists(const std::string& relative) {
  return std::filesystem::exists(rootFile(relative));
}

void initAgentValues() {
  static const bool done = [] {
    const std::string text = "agentid=4711\ndivisionid=12\ntag=fuzz\ncustomer=Fuzz Customer\n";
    writeRootFile("etc/kvdagent.ini", reinterpret_cast<const uint8_t*>(text.data()), text.size());
    FUZZ_CHECK(loadConfigurationFile(rootFile("etc/kvdagent.ini").c_str()) == kConfigurationLoaded);
    FUZZ_CHECK(initAgentInfo() == kAgentValueOk);
    deleteConfigurationVariables();
    return true;
  }();
  (void)done;
}

void checkFailed(const char* condition, const char* file, int line) {
  fprintf(stderr, "FUZZ CHECK FAILED: %s (%s:%d)\n", condition, file, line);
  abort();
}

bool preferredServerReady() {
  static const bool ready = [] {
    ServerInfo preferred{};
    snprintf(preferred.address.host, sizeof preferred.address.host, "%s", "fuzz.example");
    preferred.address.port = 8080;
    return createServersCache(&preferred) == kSrvsOk;
  }();
  return ready;
}

void checkFilesFound(SlmList* files) {
  for (void* item = getNext(files, nullptr); item != nullptr; item = getNext(files, item)) {
    FileRecord found{};
    ComponentRecord components[kMaxFileComponents];
    int32_t count = -1;
    FUZZ_CHECK(findFileEntry(static_cast<const FileRecord*>(item), &found, components, &count) ==
               kLatOk);
    FUZZ_CHECK(count >= 0 && count <= kMaxFileComponents);
  }
}

}  // namespace slm::fuzz
