// A scripted TCP peer on 127.0.0.1: accepts one connection, records every byte it receives and
// answers with scripted writes, then ends its side or holds the connection open.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace slm::test {

struct LoopbackScript {
  // kAfterRequest: answer once a whole HTTP request (head and announced body) has arrived.
  enum class Start { kOnConnect, kAfterRequest };
  Start start = Start::kAfterRequest;
  std::vector<std::string> replies;  // one send each, `pauseBetween` apart
  std::chrono::milliseconds pauseBetween{0};
  bool closeAfterReplies = true;  // false: the connection stays open and silent
};

class LoopbackServer {
 public:
  explicit LoopbackServer(LoopbackScript script);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  uint16_t port() const { return port_; }  // 0 when the server could not listen
  // The bytes received once a whole HTTP request arrived or the connection is over.
  std::string request() { return waitFor(true); }
  // Every byte received once the client has closed the connection.
  std::string received() { return waitFor(false); }

 private:
  std::string waitFor(bool wholeRequest);
  void serve();
  bool readSome(int fd);

  LoopbackScript script_;
  int listenFd_ = -1;
  int wakePipe_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string received_;  // guarded by mutex_
  bool done_ = false;     // guarded by mutex_
  std::thread thread_;
};

// A loopback port that was bound and released, so that nothing listens there.
uint16_t closedLoopbackPort();

}  // namespace slm::test
