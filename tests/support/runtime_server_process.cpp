#include "support/runtime_server_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace slm::test {
namespace {

constexpr const char* kPython = "/usr/bin/python3";

// Reads the first line the child prints once it prints within 30 seconds.
std::string readFirstLine(int fd) {
  std::string line;
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, 30000) <= 0) return line;
  for (char c; (line.empty() || line.back() != '\n') && read(fd, &c, 1) == 1;) line.push_back(c);
  return line;
}

}  // namespace

RuntimeServerProcess::RuntimeServerProcess(const std::string& scenario, const TestCa* tls) {
  dir_.writeFile("scenario.json", scenario);
  int fds[2];
  if (pipe(fds) != 0) return;
  std::string script = std::string(SLM_SOURCE_DIR) + "/tools/runtime_server/server.py";
  std::string state = dir_.file("state"), scenarioPath = dir_.file("scenario.json");
  std::vector<std::string> args = {kPython, script,       "serve",     "--state",
                                   state,   "--scenario", scenarioPath};
  if (tls != nullptr) {
    args.insert(args.end(), {"--tls-cert", tls->certFile(), "--tls-key", tls->keyFile()});
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execv(kPython, argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::string line = pid_ > 0 ? readFirstLine(fds[0]) : "";
  if (line.rfind("port ", 0) == 0) port_ = static_cast<uint16_t>(atoi(line.c_str() + 5));
  close(fds[0]);
}

RuntimeServerProcess::~RuntimeServerProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

std::string RuntimeServerProcess::query(const std::string& script,
                                        const std::string& argument) const {
  std::string command = std::string(kPython) + " -c '" +
                        "import sqlite3, sys\ndb = sqlite3.connect(sys.argv[1])\n" + script +
                        "' '" + dir_.file("state") + "/server.db' '" + argument + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  pclose(pipe);
  return out;
}

std::string RuntimeServerProcess::lastRequest(const std::string& serviceId) const {
  return query(
      "row = db.execute(\"SELECT raw FROM requests WHERE service = ? ORDER BY id DESC LIMIT 1\","
      " (sys.argv[2],)).fetchone()\n"
      "sys.stdout.buffer.write(bytes(row[0]) if row else b\"\")\n",
      serviceId);
}

std::string RuntimeServerProcess::lastRequestBody(const std::string& serviceId) const {
  std::string raw = lastRequest(serviceId);
  size_t blank = raw.find("\r\n\r\n");
  return blank == std::string::npos ? "" : raw.substr(blank + 4);
}

std::vector<std::string> RuntimeServerProcess::rows(const std::string& select) const {
  std::istringstream text(
      query("for row in db.execute(sys.argv[2]):\n"
            "    print(\"|\".join(str(c) for c in row))\n",
            select));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> RuntimeServerProcess::violations() const {
  std::istringstream text(
      query("for kind, detail in db.execute(\"SELECT kind, detail FROM violations ORDER BY id\"):\n"
            "    print(\"%s: %s\" % (kind, detail))\n",
            ""));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

}  // namespace slm::test
