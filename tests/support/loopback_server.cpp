#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "support/wait_readable.h"

namespace slm::test {
namespace {

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
  if (script_.tls) {
    tlsContext_ = SSL_CTX_new(TLS_server_method());
    if (tlsContext_ == nullptr ||
        SSL_CTX_use_certificate_chain_file(tlsContext_, script_.tls->certFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(tlsContext_, script_.tls->keyFile.c_str(), SSL_FILETYPE_PEM) !=
            1) {
      return;
    }
  }
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
  SSL_CTX_free(tlsContext_);
}

bool LoopbackServer::sendAll(int fd, const std::string& bytes) {
  if (tls_ != nullptr) {
    size_t written = 0;
    return bytes.empty() || SSL_write_ex(tls_, bytes.data(), bytes.size(), &written) == 1;
  }
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n == 0 || (n < 0 && errno != EINTR)) return false;
    sent += n > 0 ? static_cast<size_t>(n) : 0;
  }
  return true;
}

// The server's handshake on the accepted connection, bounded: a client that never finishes it
// must not hold the server thread.
bool LoopbackServer::startTls(int fd) {
  if (tlsContext_ == nullptr) return false;
  timeval bound{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  tls_ = SSL_new(tlsContext_);
  return tls_ != nullptr && SSL_set_fd(tls_, fd) == 1 && SSL_accept(tls_) == 1;
}

std::string LoopbackServer::waitFor(bool wholeRequest) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(10),
                    [&] { return done_ || (wholeRequest && isCompleteHttpRequest(received_)); });
  return received_;
}

bool LoopbackServer::readSome(int fd) {
  char chunk[4096];
  ssize_t n = -1;
  if (tls_ != nullptr) {
    size_t got = 0;
    if ((SSL_pending(tls_) > 0 || waitReadable(fd, wakePipe_[0])) &&
        SSL_read_ex(tls_, chunk, sizeof chunk, &got) == 1) {
      n = static_cast<ssize_t>(got);
    }
  } else if (waitReadable(fd, wakePipe_[0])) {
    n = recv(fd, chunk, sizeof chunk, 0);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (n > 0) received_.append(chunk, static_cast<size_t>(n));
  changed_.notify_all();
  return n > 0;
}

void LoopbackServer::serve() {
  // TLS writes go through write(2): a client that hung up must not end the test with SIGPIPE.
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
  int fd = waitReadable(listenFd_, wakePipe_[0]) ? accept(listenFd_, nullptr, nullptr) : -1;
  bool open = fd >= 0 && (!script_.tls || startTls(fd));
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
  if (open && script_.closeAfterReplies) {
    if (tls_ != nullptr && script_.tls->closeNotify) (void)SSL_shutdown(tls_);
    shutdown(fd, SHUT_WR);
  }
  while (open) open = readSome(fd);
  SSL_free(tls_);
  tls_ = nullptr;
  if (fd >= 0) close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  done_ = true;
  changed_.notify_all();
}

}  // namespace slm::test
