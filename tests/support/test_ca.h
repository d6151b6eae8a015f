// A throw-away certificate authority and a server certificate signed by it, made by the reference
// server's `testca` command (openssl) in a temporary directory that goes with the object.
#pragma once

#include <string>
#include <vector>

#include "support/temp_root.h"

namespace slm::test {

class TestCa {
 public:
  // A certificate for `names` (addresses and DNS names); pin() is empty when none was made.
  explicit TestCa(const std::vector<std::string>& names = {"127.0.0.1", "localhost"});

  std::string caFile() const { return dir_.file("ca.pem"); }
  std::string certFile() const { return dir_.file("server.pem"); }
  std::string keyFile() const { return dir_.file("server.key"); }
  // The base64 SHA-256 of the server key's SubjectPublicKeyInfo, as openssl computes it.
  const std::string& pin() const { return pin_; }

 private:
  TempDir dir_;
  std::string pin_;
};

}  // namespace slm::test
