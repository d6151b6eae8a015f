#include "support/test_ca.h"

#include <cstdio>

namespace slm::test {

TestCa::TestCa(const std::vector<std::string>& names) {
  std::string command = std::string("/usr/bin/python3 '") + SLM_SOURCE_DIR +
                        "/tools/runtime_server/server.py' testca '" + dir_.path() + "'";
  for (const std::string& name : names) command += " '" + name + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return;
  char line[128] = "";
  bool read = fgets(line, sizeof line, pipe) != nullptr;
  if (pclose(pipe) != 0 || !read) return;
  pin_ = line;
  while (!pin_.empty() && (pin_.back() == '\n' || pin_.back() == '\r')) pin_.pop_back();
}

}  // namespace slm::test
