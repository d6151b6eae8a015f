// A scripted TCP peer on 127.0.0.1: accepts one connection, records every byte it receives and
// answers with scripted writes, then ends its side or holds the connection open. With a TLS
// certificate it serves TLS, records what came inside and sends each scripted write as records.
#pragma once

#include <openssl/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace slm::test {

struct LoopbackTls {
  std::string certFile;
  std::string keyFile;
  bool closeNotify = true;  // false: the side ends without close_notify, as a cut would
};

struct LoopbackScript {
  // kAfterRequest: answer once a whole HTTP request (head and announced body) has arrived.
  enum class Start { kOnConnect, kAfterRequest };
  Start start = Start::kAfterRequest;
  std::vector<std::string> replies;  // one send each, `pauseBetween` apart
  std::chrono::milliseconds pauseBetween{0};
  bool closeAfterReplies = true;  // false: the connection stays open and silent
  std::optional<LoopbackTls> tls = std::nullopt;
};

class LoopbackServer {
 public:
  explicit LoopbackServer(LoopbackScript script);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // 0 when the server could not listen or load its certificate.
  uint16_t port() const { return port_; }
  // The bytes received once a whole HTTP request arrived or the connection is over.
  std::string request() { return waitFor(true); }
  // Every byte received once the client has closed the connection.
  std::string received() { return waitFor(false); }

 private:
  std::string waitFor(bool wholeRequest);
  void serve();
  bool readSome(int fd);
  bool sendAll(int fd, const std::string& bytes);
  bool startTls(int fd);

  LoopbackScript script_;
  int listenFd_ = -1;
  int wakePipe_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string received_;  // guarded by mutex_
  bool done_ = false;     // guarded by mutex_
  SSL_CTX* tlsContext_ = nullptr;
  SSL* tls_ = nullptr;  // the connection's, on the server thread
  std::thread thread_;
};

// A loopback port that was bound and released, so that nothing listens there.
uint16_t closedLoopbackPort();

}  // namespace slm::test
