// Waiting for another thread in tests: poll a condition with a generous bound instead of sleeping
// for a guessed time.
#pragma once

#include <chrono>
#include <thread>

namespace slm::test {

// Returns whether `condition` held before `bound` passed.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
  auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace slm::test
