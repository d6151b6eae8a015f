#include "support/runtime_server_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace slm::test {
namespace {

constexpr const char* kPython = "/usr/bin/python3";
constexpr int kStartBoundMs = 30000;

std::string serverScript() {
  return std::string(SLM_SOURCE_DIR) + "/tools/runtime_server/server.py";
}

// Reads the first line the child prints, waiting at most the start bound.
std::string readFirstLine(int fd) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartBoundMs);
  while (line.empty() || line.back() != '\n') {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    char c;
    if (read(fd, &c, 1) != 1) break;
    line.push_back(c);
  }
  return line;
}

}  // namespace

RuntimeServerProcess::RuntimeServerProcess(const std::string& scenario) {
  dir_.writeFile("scenario.json", scenario);
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return;
  std::string script = serverScript();
  std::string state = dir_.file("state");
  std::string scenarioPath = dir_.file("scenario.json");
  pid_ = fork();
  if (pid_ == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    execl(kPython, kPython, script.c_str(), "serve", "--state", state.c_str(), "--scenario",
          scenarioPath.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipeFds[1]);
  if (pid_ > 0) {
    std::string line = readFirstLine(pipeFds[0]);
    if (line.rfind("port ", 0) == 0) port_ = static_cast<uint16_t>(atoi(line.c_str() + 5));
  }
  close(pipeFds[0]);
}

RuntimeServerProcess::~RuntimeServerProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
}

std::string RuntimeServerProcess::query(const std::string& script,
                                        const std::string& argument) const {
  std::string command = std::string(kPython) + " -c '" + script + "' '" + dir_.file("state") +
                        "/server.db' '" + argument + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

std::string RuntimeServerProcess::lastRequest(const std::string& serviceId) const {
  static const char* script =
      "import sqlite3, sys\n"
      "db = sqlite3.connect(sys.argv[1])\n"
      "row = db.execute(\"SELECT raw FROM requests WHERE service = ? ORDER BY id DESC LIMIT 1\","
      " (sys.argv[2],)).fetchone()\n"
      "sys.stdout.buffer.write(bytes(row[0]) if row else b\"\")\n";
  return query(script, serviceId);
}

std::string RuntimeServerProcess::lastRequestBody(const std::string& serviceId) const {
  std::string raw = lastRequest(serviceId);
  size_t blank = raw.find("\r\n\r\n");
  return blank == std::string::npos ? "" : raw.substr(blank + 4);
}

std::vector<std::string> RuntimeServerProcess::violations() const {
  static const char* script =
      "import sqlite3, sys\n"
      "db = sqlite3.connect(sys.argv[1])\n"
      "for kind, detail in db.execute(\"SELECT kind, detail FROM violations ORDER BY id\"):\n"
      "    print(\"%s: %s\" % (kind, detail))\n";
  std::vector<std::string> lines;
  std::istringstream text(query(script, ""));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

}  // namespace slm::test
