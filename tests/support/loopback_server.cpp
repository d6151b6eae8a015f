#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace slm::test {
namespace {

// Waits for `fd` to be readable or for the wake pipe. False when woken or on error.
bool waitReadable(int fd, int wakeFd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
  for (;;) {
    int ready = poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || (fds[1].revents & POLLIN) != 0) return false;
    return (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
  }
}

bool sendAll(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Binds `fd` to a free loopback port and returns it; 0 on failure.
uint16_t bindLoopback(int fd) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  return ntohs(address.sin_port);
}

}  // namespace

bool isCompleteHttpRequest(const std::string& bytes) {
  size_t headEnd = bytes.find("\r\n\r\n");
  if (headEnd == std::string::npos) return false;
  size_t bodyLength = 0;
  size_t field = bytes.find("\r\nContent-Length:");
  if (field != std::string::npos && field < headEnd) {
    bodyLength = strtoul(bytes.c_str() + field + 17, nullptr, 10);
  }
  return bytes.size() >= headEnd + 4 + bodyLength;
}

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
  if (wakePipe_[1] >= 0) {
    char wake = 1;
    (void)!write(wakePipe_[1], &wake, 1);
  }
  if (thread_.joinable()) thread_.join();
  if (listenFd_ >= 0) close(listenFd_);
  for (int fd : wakePipe_) {
    if (fd >= 0) close(fd);
  }
}

std::string LoopbackServer::waitFor(bool wholeRequest) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(10),
                    [&] { return done_ || (wholeRequest && isCompleteHttpRequest(received_)); });
  return received_;
}

void LoopbackServer::finish() {
  std::lock_guard<std::mutex> lock(mutex_);
  done_ = true;
  changed_.notify_all();
}

// Records what arrives. False once the client closed, on an error, or when the server is told to
// stop.
bool LoopbackServer::readSome(int fd) {
  if (!waitReadable(fd, wakePipe_[0])) return false;
  char chunk[4096];
  ssize_t n = recv(fd, chunk, sizeof chunk, 0);
  if (n <= 0) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  received_.append(chunk, static_cast<size_t>(n));
  changed_.notify_all();
  return true;
}

void LoopbackServer::serve() {
  if (!waitReadable(listenFd_, wakePipe_[0])) return finish();
  int fd = accept(listenFd_, nullptr, nullptr);
  if (fd < 0) return finish();

  bool open = true;
  if (script_.start == LoopbackScript::Start::kAfterRequest) {
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (isCompleteHttpRequest(received_)) break;
      }
      open = readSome(fd);
      if (!open) break;
    }
  }
  for (size_t i = 0; open && i < script_.replies.size(); ++i) {
    if (i > 0 && script_.pauseBetween.count() > 0)
      std::this_thread::sleep_for(script_.pauseBetween);
    open = sendAll(fd, script_.replies[i]);
  }
  // Ending only the sending side lets the client read everything and then end of data; closing
  // with unread request bytes would reset the connection instead.
  if (open && script_.closeAfterReplies) shutdown(fd, SHUT_WR);
  while (open) open = readSome(fd);
  close(fd);
  finish();
}

}  // namespace slm::test
