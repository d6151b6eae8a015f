#include "support/scripted_device.h"

#include <errno.h>

#include <chrono>
#include <cstring>

namespace slm::test {

namespace {
ScriptedDevice* current = nullptr;
constexpr int kDescriptor = 42;
}  // namespace

struct ScriptedCalls {
  static int open(const char* path, int) { return current->open(path); }
  static int ioctl(int, unsigned long request) { return current->ioctl(request); }
  static ssize_t read(int, void* buffer, size_t size) { return current->read(buffer, size); }
  static ssize_t write(int, const void* buffer, size_t size) {
    return current->write(buffer, size);
  }
  static int close(int) { return current->close(); }
};

namespace {
const DeviceCalls kScripted{ScriptedCalls::open, ScriptedCalls::ioctl, ScriptedCalls::read,
                            ScriptedCalls::write, ScriptedCalls::close};
}  // namespace

ScriptedDevice::ScriptedDevice() {
  current = this;
  setDeviceCalls(&kScripted);
}

ScriptedDevice::~ScriptedDevice() {
  setDeviceCalls(nullptr);
  current = nullptr;
}

void ScriptedDevice::queueRecord(const std::string& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  steps_.push_back({bytes, -1});
  changed_.notify_all();
}

void ScriptedDevice::queueEvent(const DriverEvent& event) {
  uint8_t bytes[kEventRecordSize];
  encodeDriverEvent(event, bytes);
  queueRecord(std::string(reinterpret_cast<char*>(bytes), sizeof bytes));
}

void ScriptedDevice::queueReadFailure(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  steps_.push_back({"", error});
  changed_.notify_all();
}

void ScriptedDevice::interruptNextRead(int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  interrupts_ = times;
}

void ScriptedDevice::failWrites(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  writeError_ = error;
}

void ScriptedDevice::failOpen(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  openError_ = error;
}

void ScriptedDevice::holdOpens() {
  std::lock_guard<std::mutex> lock(mutex_);
  holdOpens_ = true;
}

bool ScriptedDevice::waitForHeldOpen() {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return openHeld_; });
}

void ScriptedDevice::releaseOpens() {
  std::lock_guard<std::mutex> lock(mutex_);
  holdOpens_ = false;
  changed_.notify_all();
}

bool ScriptedDevice::waitForAcks(size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return acks_.size() >= count; });
}

std::vector<std::string> ScriptedDevice::acks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return acks_;
}

std::vector<unsigned long> ScriptedDevice::ioctls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ioctls_;
}

int ScriptedDevice::opens() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return opens_;
}

int ScriptedDevice::closes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closes_;
}

int ScriptedDevice::reads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reads_;
}

int ScriptedDevice::open(const char*) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++opens_;
  openHeld_ = holdOpens_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return !holdOpens_; });
  openHeld_ = false;
  if (openError_ != 0) {
    errno = openError_;
    return -1;
  }
  open_ = true;
  return kDescriptor;
}

int ScriptedDevice::ioctl(unsigned long request) {
  std::lock_guard<std::mutex> lock(mutex_);
  ioctls_.push_back(request);
  return 0;
}

ssize_t ScriptedDevice::read(void* buffer, size_t size) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++reads_;
  if (interrupts_ > 0) {
    --interrupts_;
    errno = EINTR;
    return -1;
  }
  // A closed device ends a blocked read with nothing, as the driver does when delivery stops.
  changed_.wait(lock, [&] { return !steps_.empty() || !open_; });
  if (!open_) return 0;
  Step step = steps_.front();
  steps_.pop_front();
  if (step.error >= 0) {
    errno = step.error;
    return step.error == 0 ? 0 : -1;
  }
  size_t copied = step.bytes.size() < size ? step.bytes.size() : size;
  memcpy(buffer, step.bytes.data(), copied);
  return static_cast<ssize_t>(copied);
}

ssize_t ScriptedDevice::write(const void* buffer, size_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (writeError_ != 0) {
    errno = writeError_;
    return -1;
  }
  acks_.emplace_back(static_cast<const char*>(buffer), size);
  changed_.notify_all();
  return static_cast<ssize_t>(size);
}

int ScriptedDevice::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++closes_;
  open_ = false;
  changed_.notify_all();
  return 0;
}

}  // namespace slm::test
