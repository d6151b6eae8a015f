// A hand-set agent clock for tests: while a FakeClock lives, every agent time reads its value; the
// system clock comes back when it goes. Only one may live at a time.
#pragma once

#include <cstdint>

namespace slm::test {

class FakeClock {
 public:
  explicit FakeClock(int64_t nowSeconds);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void set(int64_t nowSeconds);
  void advance(int64_t seconds);
  int64_t now() const;
};

}  // namespace slm::test
