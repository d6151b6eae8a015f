#include "support/tinyproxy_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/wait_until.h"

namespace slm::test {
namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// A port nobody listens on right now: the kernel's pick for a socket bound to port 0.
uint16_t freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool accepts(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(port);
  bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

}  // namespace

TinyproxyProcess::TinyproxyProcess() {
  uint16_t port = freePort();
  dir_.writeFile("tinyproxy.conf", "Port " + std::to_string(port) +
                                       "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\n"
                                       "MaxClients 20\nLogLevel Error\nLogFile \"" +
                                       dir_.file("tinyproxy.log") + "\"\n");
  std::string config = dir_.file("tinyproxy.conf");
  pid_ = fork();
  if (pid_ == 0) {
    execlp("tinyproxy", "tinyproxy", "-d", "-c", config.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid_ > 0 && waitUntil([port] { return accepts(port); })) port_ = port;
}

TinyproxyProcess::~TinyproxyProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

}  // namespace slm::test
