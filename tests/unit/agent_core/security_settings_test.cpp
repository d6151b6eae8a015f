#include "agent_core/security_settings.h"

#include <gtest/gtest.h>

#include <string>

namespace slm {
namespace {

TEST(SecuritySettings, ReadsEachKeyAndKeepsTheDefaultForWhatItCannotRead) {
  struct Case {
    const char* selfUpdate;
    const char* catalogMb;
    const char* downloadMb;
    const char* scanRecords;
    SelfUpdateMode mode;
    int64_t catalogBytes;
    int64_t downloadBytes;
    int64_t records;
  };
  constexpr int64_t kMb = 1 << 20;
  const Case cases[] = {
      {nullptr, nullptr, nullptr, nullptr, SelfUpdateMode::kStrict, 256 * kMb, 256 * kMb,
       2'000'000},
      {"legacy", "1", "2", "3", SelfUpdateMode::kLegacy, kMb, 2 * kMb, 3},
      {"off", "65536", "512", "1000000000", SelfUpdateMode::kOff, 65536 * kMb, 512 * kMb,
       1'000'000'000},
      {"strict", nullptr, nullptr, nullptr, SelfUpdateMode::kStrict, 256 * kMb, 256 * kMb,
       2'000'000},
      // Anything not understood falls back to the safe default, never to the shell.
      {"Legacy", "0", "-5", "1000000001", SelfUpdateMode::kStrict, 256 * kMb, 256 * kMb, 2'000'000},
      {"", "65537", "12x", " 7", SelfUpdateMode::kStrict, 256 * kMb, 256 * kMb, 2'000'000},
      {"off ", "99999999999999999999", "", "+5", SelfUpdateMode::kStrict, 256 * kMb, 256 * kMb,
       2'000'000},
  };
  for (const Case& c : cases) {
    SecuritySettings settings;
    settings.maxScanRecords = 42;  // whatever was there before is replaced
    const char* texts[kSecurityKeyCount] = {c.selfUpdate, c.catalogMb, c.downloadMb, c.scanRecords};
    parseSecuritySettings(texts, &settings);
    SCOPED_TRACE(c.selfUpdate != nullptr ? c.selfUpdate : "(absent)");
    EXPECT_EQ(settings.selfUpdate, c.mode);
    EXPECT_EQ(settings.maxCatalogBytes, c.catalogBytes);
    EXPECT_EQ(settings.maxDownloadBytes, c.downloadBytes);
    EXPECT_EQ(settings.maxScanRecords, c.records);
  }
}

TEST(SecuritySettings, TlsAndSignatureSwitchesNeverWeakenOnATypingError) {
  struct Case {
    const char* tls;
    const char* policy;
    bool serverTls;
    SignaturePolicy signatures;
  } cases[] = {
      {nullptr, nullptr, false, SignaturePolicy::kLegacy},
      {"no", "legacy", false, SignaturePolicy::kLegacy},
      {"yes", "site", true, SignaturePolicy::kSite},
      {"Yes", "Legacy", true, SignaturePolicy::kSite},
      {"", "", true, SignaturePolicy::kSite},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tls ? c.tls : "-") + "/" + (c.policy ? c.policy : "-"));
    const char* texts[kSecurityKeyCount] = {nullptr,   nullptr,  nullptr,     nullptr,    c.tls,
                                            "/ca.pem", c.policy, "/keys.pem", "AAAA,BBBB"};
    SecuritySettings settings;
    parseSecuritySettings(texts, &settings);
    EXPECT_EQ(settings.serverTls, c.serverTls);
    EXPECT_EQ(settings.signaturePolicy, c.signatures);
    EXPECT_STREQ(settings.tlsCaFile, "/ca.pem");
    EXPECT_STREQ(settings.siteKeysFile, "/keys.pem");
    EXPECT_STREQ(settings.tlsPins, "AAAA,BBBB");
  }
}

}  // namespace
}  // namespace slm
