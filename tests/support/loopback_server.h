// A scripted TCP peer on 127.0.0.1 for tests of the network code: it listens on a free port,
// accepts one connection, records every byte it receives and answers with scripted writes, then
// ends its side of the connection or holds it open. It keeps recording until the client closes.
// One server thread per object, joined by the destructor.
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
  enum class Start {
    kOnConnect,     // answer as soon as the connection is accepted
    kAfterRequest,  // answer once a whole HTTP request (head and announced body) has arrived
  };
  Start start = Start::kAfterRequest;
  // Each part goes out with one send, in order; `pauseBetween` separates the sends so that the
  // client sees them in separate reads.
  std::vector<std::string> replies;
  std::chrono::milliseconds pauseBetween{0};
  // True: after the replies the server ends its side, so the client reads end of data. False: the
  // connection stays open without more data, so the client's reads time out.
  bool closeAfterReplies = true;
};

class LoopbackServer {
 public:
  explicit LoopbackServer(LoopbackScript script);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // 0 when the server could not listen.
  uint16_t port() const { return port_; }
  // The bytes received once a whole HTTP request has arrived or the connection is over.
  std::string request() { return waitFor(true); }
  // Every byte received once the client has closed the connection.
  std::string received() { return waitFor(false); }

 private:
  // Waits at most ten seconds for the end of the connection, or also for a whole request.
  std::string waitFor(bool wholeRequest);
  void serve();
  bool readSome(int fd);
  void finish();

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

// True once `bytes` holds an HTTP request head and as many body bytes as its Content-Length says.
bool isCompleteHttpRequest(const std::string& bytes);

// A loopback port that was bound and released, so that nothing listens there.
uint16_t closedLoopbackPort();

}  // namespace slm::test
