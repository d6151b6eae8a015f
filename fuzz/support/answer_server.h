// The peer of the network targets: a thread on a loopback port that answers every connection with
// the bytes a target set, ends its sending side so the agent reads to the end of the data, reads
// the request to its end and resets the connection (so no port waits in TIME_WAIT over millions
// of runs). The target sets an answer, lets the agent call, then waits until the peer is idle.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace slm::fuzz {

class AnswerServer {
 public:
  AnswerServer();
  ~AnswerServer();
  AnswerServer(const AnswerServer&) = delete;
  AnswerServer& operator=(const AnswerServer&) = delete;

  uint16_t port() const { return port_; }
  // The bytes every following connection is answered with.
  void setAnswer(std::string bytes);
  // Waits until every connection accepted so far is over; returns how many there were since the
  // last call.
  int waitIdle();

 private:
  void serve();
  void serveOne(int fd);

  int listenFd_ = -1;
  int wakePipe_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::mutex mutex_;
  std::condition_variable idle_;
  std::string answer_;  // guarded by mutex_
  bool busy_ = false;   // guarded by mutex_: a connection is being served
  int served_ = 0;      // guarded by mutex_
  std::thread thread_;
};

}  // namespace slm::fuzz
