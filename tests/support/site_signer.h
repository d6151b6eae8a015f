// A site key pair made by the openssl tool at test time, and files signed with it by the operator's
// own tool, scripts/site-sign, so that the agent's side never checks itself.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent_core/security_settings.h"
#include "agent_core/support/bytes.h"
#include "support/temp_root.h"

namespace slm::test {

inline bool runCommand(const std::string& command) {
  return std::system(command.c_str()) == 0;
}

class SiteSigner {
 public:
  // Makes `name`.key (private) and `name`.pub (public, PEM) in `dir`.
  SiteSigner(const TempDir& dir, const std::string& name)
      : key_(dir.file(name + ".key")), public_(dir.file(name + ".pub")) {
    EXPECT_TRUE(runCommand("openssl genpkey -algorithm ED25519 -out '" + key_ + "' && " +
                           "openssl pkey -in '" + key_ + "' -pubout -out '" + public_ + "'"));
  }
  const std::string& privateKey() const { return key_; }
  std::string publicPem() const { return readFile(public_); }

  // Makes this key the agent's only site key, as "/etc/site-keys.pem" under `root`, and puts the
  // agent under the site policy. The settings go back to their defaults when the test resets them.
  void trustUnder(const TempDir& root) const {
    root.writeFile("etc/site-keys.pem", publicPem());
    SecuritySettings settings;
    settings.signaturePolicy = SignaturePolicy::kSite;
    copyBounded(settings.siteKeysFile, kSecurityTextSize - 1, "/etc/site-keys.pem");
    setSecuritySettings(settings);
  }

  // Writes FILE.sig for each of `files`; `options` go to the tool first (e.g. a manifest's).
  void sign(const std::vector<std::string>& files, const std::string& options = "") const {
    std::string command = SLM_SOURCE_DIR "/scripts/site-sign " + options + " '" + key_ + "'";
    for (const std::string& file : files) command += " '" + file + "'";
    EXPECT_TRUE(runCommand(command + " >/dev/null")) << command;
  }

 private:
  std::string key_;
  std::string public_;
};

}  // namespace slm::test
