#include "support/answer_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "support/wait_readable.h"

namespace slm::fuzz {

using test::waitReadable;

AnswerServer::AnswerServer() {
  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (pipe2(wakePipe_, O_CLOEXEC) != 0 || listenFd_ < 0 || bind(listenFd_, raw, length) != 0 ||
      getsockname(listenFd_, raw, &length) != 0 || listen(listenFd_, 16) != 0) {
    perror("answer server");
    abort();
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

AnswerServer::~AnswerServer() {
  (void)!write(wakePipe_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  for (int fd : {listenFd_, wakePipe_[0], wakePipe_[1]}) close(fd);
}

void AnswerServer::setAnswer(std::string bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  answer_ = std::move(bytes);
}

int AnswerServer::waitIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  // A connection the agent made is accepted at once; one still in the backlog is not yet counted,
  // so the wait also covers connections pending on the listening socket.
  for (;;) {
    idle_.wait(lock, [this] { return !busy_; });
    pollfd pending{listenFd_, POLLIN, 0};
    if (poll(&pending, 1, 0) <= 0) break;
    idle_.wait_for(lock, std::chrono::milliseconds(1));
  }
  int served = served_;
  served_ = 0;
  return served;
}

void AnswerServer::serve() {
  while (waitReadable(listenFd_, wakePipe_[0])) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      busy_ = true;
    }
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) serveOne(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    busy_ = false;
    if (fd >= 0) ++served_;
    idle_.notify_all();
  }
}

void AnswerServer::serveOne(int fd) {
  std::string answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    answer = answer_;
  }
  bool open = true;
  for (size_t sent = 0; open && sent < answer.size();) {
    ssize_t n = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (n > 0) sent += static_cast<size_t>(n);
    open = n > 0 || (n < 0 && errno == EINTR);
  }
  if (open) shutdown(fd, SHUT_WR);
  // The agent closes once it has read what it wanted; until then its request is read and dropped.
  char scratch[4096];
  while (waitReadable(fd, wakePipe_[0]) && recv(fd, scratch, sizeof scratch, 0) > 0) {
  }
  linger reset{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  close(fd);
}

}  // namespace slm::fuzz
