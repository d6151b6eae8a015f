// A scripted monitoring device for tests: installed as the device calls, it hands out the event
// records a test queues (blocking a read until one comes or the device is closed), records every
// acknowledgement, ioctl and open, and fails the calls a test asks to fail.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/unix/agent/driver_api.h"

namespace slm::test {

class ScriptedDevice {
 public:
  ScriptedDevice();  // installs itself; only one may live at a time
  ~ScriptedDevice();
  ScriptedDevice(const ScriptedDevice&) = delete;
  ScriptedDevice& operator=(const ScriptedDevice&) = delete;

  // Queues raw bytes for one read (a whole record or a cut one).
  void queueRecord(const std::string& bytes);
  void queueEvent(const DriverEvent& event);
  // The next read fails with `error` (0: returns 0 bytes) instead of delivering a record.
  void queueReadFailure(int error);
  // Reads interrupted by a signal before the next record is delivered.
  void interruptNextRead(int times);
  void failWrites(int error);
  void failOpen(int error);
  // Opens wait until released; waitForHeldOpen waits (with a generous bound) until one waits.
  void holdOpens();
  bool waitForHeldOpen();
  void releaseOpens();

  // Waits (with a generous bound) until `count` acknowledgements were written.
  bool waitForAcks(size_t count);
  std::vector<std::string> acks() const;
  std::vector<unsigned long> ioctls() const;
  int opens() const;
  int closes() const;
  int reads() const;

 private:
  friend struct ScriptedCalls;
  int open(const char* path);
  int ioctl(unsigned long request);
  ssize_t read(void* buffer, size_t size);
  ssize_t write(const void* buffer, size_t size);
  int close();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  struct Step {
    std::string bytes;
    int error;  // -1: deliver `bytes`
  };
  std::deque<Step> steps_;
  std::vector<std::string> acks_;
  std::vector<unsigned long> ioctls_;
  int interrupts_ = 0;
  int writeError_ = 0;
  int openError_ = 0;
  int opens_ = 0;
  int closes_ = 0;
  int reads_ = 0;
  bool open_ = false;
  bool holdOpens_ = false;
  bool openHeld_ = false;
};

}  // namespace slm::test
