#include "support/fake_clock.h"

#include <atomic>

#include "agent_core/data/slm_time.h"

namespace slm::test {
namespace {

// Read by agent threads while the test thread moves it.
std::atomic<int64_t> fakeNow{0};

int64_t readFakeNow() {
  return fakeNow.load();
}

}  // namespace

FakeClock::FakeClock(int64_t nowSeconds) {
  fakeNow.store(nowSeconds);
  setSlmClock(readFakeNow);
}

FakeClock::~FakeClock() {
  setSlmClock(nullptr);
}

void FakeClock::set(int64_t nowSeconds) {
  fakeNow.store(nowSeconds);
}

void FakeClock::advance(int64_t seconds) {
  fakeNow.fetch_add(seconds);
}

int64_t FakeClock::now() const {
  return fakeNow.load();
}

}  // namespace slm::test
