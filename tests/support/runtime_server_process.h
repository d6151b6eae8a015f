// The reference runtime server as a child process serving one scenario on 127.0.0.1; its database
// is read back through the interpreter for the raw requests and the protocol violations.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/temp_root.h"
#include "support/test_ca.h"

namespace slm::test {

class RuntimeServerProcess {
 public:
  // Starts the server with the JSON text `scenario`, serving TLS with the certificate of `tls`
  // when given; port() is 0 when it did not come up.
  explicit RuntimeServerProcess(const std::string& scenario, const TestCa* tls = nullptr);
  ~RuntimeServerProcess();
  RuntimeServerProcess(const RuntimeServerProcess&) = delete;
  RuntimeServerProcess& operator=(const RuntimeServerProcess&) = delete;

  uint16_t port() const { return port_; }
  // Every byte of the latest request for service `serviceId`; "" when none came.
  std::string lastRequest(const std::string& serviceId) const;
  // The body of that request: what follows the blank line.
  std::string lastRequestBody(const std::string& serviceId) const;
  // The rows of an SQL query on the database, one line each, columns joined by "|".
  std::vector<std::string> rows(const std::string& select) const;
  // "kind: detail" for every violation recorded so far.
  std::vector<std::string> violations() const;

 private:
  std::string query(const std::string& script, const std::string& argument) const;

  TempDir dir_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
};

}  // namespace slm::test
