#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "support/wait_readable.h"

namespace slm::test {
namespace {

bool sendAll(int fd, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n == 0 || (n < 0 && errno != EINTR)) return false;
    sent += n > 0 ? static_cast<size_t>(n) : 0;
  }
  return true;
}

// Binds `fd` to a free loopback port and returns it; 0 on failure.
uint16_t bindLoopback(int fd) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool ok = fd >= 0 && bind(fd, raw, sizeof address) == 0 && getsockname(fd, raw, &length) == 0;
  return ok ? ntohs(address.sin_port) : 0;
}

bool isCompleteHttpRequest(const std::string& bytes) {
  size_t headEnd = bytes.find("\r\n\r\n");
  size_t field = bytes.find("\r\nContent-Length:");
  if (headEnd == std::string::npos) return false;
  size_t body = field < headEnd ? strtoul(bytes.c_str() + field + 17, nullptr, 10) : 0;
  return bytes.size() >= headEnd + 4 + body;
}

}  // namespace

uint16_t closedLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  uint16_t port = bindLoopback(fd);
  if (fd >= 0) close(fd);
  return port;
}

LoopbackServer::LoopbackServer(LoopbackScript script) : script_(std::move(script)) {
  if (pipe(wakePipe_) != 0) return;
  listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
  uint16_t port = bindLoopback(listenFd_);
  if (port == 0 || listen(listenFd_, 1) != 0) return;
  port_ = port;
  thread_ = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
  if (wakePipe_[1] >= 0) (void)!write(wakePipe_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  for (int fd : {listenFd_, wakePipe_[0], wakePipe_[1]}) {
    if (fd >= 0) close(fd);
  }
}

std::string LoopbackServer::waitFor(bool wholeRequest) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(10),
                    [&] { return done_ || (wholeRequest && isCompleteHttpRequest(received_)); });
  return received_;
}

bool LoopbackServer::readSome(int fd) {
  char chunk[4096];
  ssize_t n = waitReadable(fd, wakePipe_[0]) ? recv(fd, chunk, sizeof chunk, 0) : -1;
  std::lock_guard<std::mutex> lock(mutex_);
  if (n > 0) received_.append(chunk, static_cast<size_t>(n));
  changed_.notify_all();
  return n > 0;
}

void LoopbackServer::serve() {
  int fd = waitReadable(listenFd_, wakePipe_[0]) ? accept(listenFd_, nullptr, nullptr) : -1;
  bool open = fd >= 0;
  while (open && script_.start == LoopbackScript::Start::kAfterRequest) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (isCompleteHttpRequest(received_)) break;
    lock.unlock();
    open = readSome(fd);
  }
  for (size_t i = 0; open && i < script_.replies.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(script_.pauseBetween);
    open = sendAll(fd, script_.replies[i]);
  }
  // Ending only the sending side lets the client read to end of data; a close would reset it.
  if (open && script_.closeAfterReplies) shutdown(fd, SHUT_WR);
  while (open) open = readSome(fd);
  if (fd >= 0) close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  done_ = true;
  changed_.notify_all();
}

}  // namespace slm::test
