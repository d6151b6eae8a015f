// The security settings' parsing and their process-wide copy.
#include "agent_core/security_settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

SecuritySettings current;

// A whole positive decimal up to `limit`, else false.
bool readCount(const char* text, int64_t limit, int64_t* value) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  long long parsed = strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || parsed <= 0 || parsed > limit) return false;
  *value = parsed;
  return true;
}

// Sizes in MiB up to 64 GiB, so that the byte count stays far inside 64 bits.
constexpr int64_t kMaxMegabytes = 64 * 1024;
constexpr int64_t kMaxScanRecordsLimit = 1'000'000'000;

}  // namespace

void parseSecuritySettings(const char* const texts[kSecurityKeyCount], SecuritySettings* settings) {
  *settings = SecuritySettings{};
  if (const char* selfUpdate = texts[0]) {
    if (strcmp(selfUpdate, "strict") == 0) {
      settings->selfUpdate = SelfUpdateMode::kStrict;
    } else if (strcmp(selfUpdate, "legacy") == 0) {
      settings->selfUpdate = SelfUpdateMode::kLegacy;
    } else if (strcmp(selfUpdate, "off") == 0) {
      settings->selfUpdate = SelfUpdateMode::kOff;
    } else {
      SLM_TRACE(0, "WARNING - Bad %s value: %s (strict is used)", kSelfUpdateKey, selfUpdate);
    }
  }
  const struct {
    const char* key;
    const char* text;
    int64_t limit;
    int shift;
    int64_t* target;
  } counts[] = {
      {kMaxCatalogKey, texts[1], kMaxMegabytes, 20, &settings->maxCatalogBytes},
      {kMaxDownloadKey, texts[2], kMaxMegabytes, 20, &settings->maxDownloadBytes},
      {kMaxScanRecordsKey, texts[3], kMaxScanRecordsLimit, 0, &settings->maxScanRecords},
  };
  for (const auto& count : counts) {
    if (count.text == nullptr) continue;
    int64_t value = 0;
    if (readCount(count.text, count.limit, &value)) {
      *count.target = value << count.shift;
    } else {
      SLM_TRACE(0, "WARNING - Bad %s value: %s (the default is used)", count.key, count.text);
    }
  }
  if (const char* tls = texts[4]) {
    settings->serverTls = strcmp(tls, "no") != 0;
    if (strcmp(tls, "yes") != 0 && strcmp(tls, "no") != 0) {
      SLM_TRACE(0, "WARNING - Bad %s value: %s (yes is used)", kServerTlsKey, tls);
    }
  }
  if (const char* policy = texts[6]) {
    settings->signaturePolicy =
        strcmp(policy, "legacy") == 0 ? SignaturePolicy::kLegacy : SignaturePolicy::kSite;
    if (strcmp(policy, "legacy") != 0 && strcmp(policy, "site") != 0) {
      SLM_TRACE(0, "WARNING - Bad %s value: %s (site is used)", kSignaturePolicyKey, policy);
    }
  }
  if (texts[5] != nullptr) copyBounded(settings->tlsCaFile, kSecurityTextSize - 1, texts[5]);
  if (texts[7] != nullptr) copyBounded(settings->siteKeysFile, kSecurityTextSize - 1, texts[7]);
  if (texts[8] != nullptr) copyBounded(settings->tlsPins, kSecurityTextSize - 1, texts[8]);
}

void readSecuritySettings() {
  char texts[kSecurityKeyCount][kSecurityTextSize];
  const char* found[kSecurityKeyCount] = {};
  for (size_t i = 0; i < kSecurityKeyCount; ++i) {
    if (getConfigurationValue(kSecurityKeys[i], texts[i], kSecurityTextSize) ==
        kConfigurationValueFound) {
      found[i] = texts[i];
    }
  }
  SecuritySettings settings;
  parseSecuritySettings(found, &settings);
  current = settings;
}

const SecuritySettings& securitySettings() {
  return current;
}

void setSecuritySettings(const SecuritySettings& settings) {
  current = settings;
}

}  // namespace slm
