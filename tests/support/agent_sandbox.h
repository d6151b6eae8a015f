// A temporary agent root with a cache directory, a trace that lets every level through and a
// configuration file loaded from the root's /etc, for the tests of modules that keep agent state.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/temp_root.h"

namespace slm::test {

inline std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int value : values) out.push_back(static_cast<char>(value));
  return out;
}

// `value` as four little-endian bytes.
inline std::string le32(uint32_t value) {
  return bytes({static_cast<int>(value & 0xFF), static_cast<int>((value >> 8) & 0xFF),
                static_cast<int>((value >> 16) & 0xFF), static_cast<int>(value >> 24)});
}

// `value` as eight little-endian bytes.
inline std::string le64(uint64_t value) {
  return le32(static_cast<uint32_t>(value)) + le32(static_cast<uint32_t>(value >> 32));
}

// `text` followed by zeros up to `size` bytes.
inline std::string field(const std::string& text, size_t size) {
  return text + std::string(size - text.size(), '\0');
}

class AgentSandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    restartTrace();
  }
  void TearDown() override {
    deleteConfigurationVariables();
    stopTrace();
    setTraceLevel(-1);
    setAgentRoot("");
  }

  // Empties the trace.
  void restartTrace() {
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
  }
  std::string trace() const { return readFile(root_.file("trace.log")); }
  bool traced(const std::string& text) const { return trace().find(text) != std::string::npos; }

  void loadConfiguration(const std::string& text) {
    deleteConfigurationVariables();
    root_.writeFile("etc/kvdagent.ini", text);
    ASSERT_EQ(loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()), kConfigurationLoaded);
  }

  std::string cachePath(const std::string& name) const {
    return root_.file("var/qsam/cache/" + name);
  }
  std::string writeCacheFile(const std::string& name, const std::string& content) {
    root_.writeFile("var/qsam/cache/" + name, content);
    return cachePath(name);
  }
  std::string readCacheFile(const std::string& name) const { return readFile(cachePath(name)); }

  TempDir root_;
};

}  // namespace slm::test
