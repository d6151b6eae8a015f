// A real forwarding HTTP proxy (tinyproxy) on 127.0.0.1 for tests of the agent's proxy mode.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "support/temp_root.h"

namespace slm::test {

class TinyproxyProcess {
 public:
  // Starts the proxy on a free loopback port; port() is 0 when it did not come up.
  TinyproxyProcess();
  ~TinyproxyProcess();
  TinyproxyProcess(const TinyproxyProcess&) = delete;
  TinyproxyProcess& operator=(const TinyproxyProcess&) = delete;

  uint16_t port() const { return port_; }

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
};

}  // namespace slm::test
