// The security settings' parsing and their process-wide copy.
#include "agent_core/security_settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent_core/slm_conf.h"
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

void parseSecuritySettings(const char* selfUpdate, const char* maxCatalogMb,
                           const char* maxDownloadMb, const char* maxScanRecords,
                           SecuritySettings* settings) {
  *settings = SecuritySettings{};
  if (selfUpdate != nullptr) {
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
      {kMaxCatalogKey, maxCatalogMb, kMaxMegabytes, 20, &settings->maxCatalogBytes},
      {kMaxDownloadKey, maxDownloadMb, kMaxMegabytes, 20, &settings->maxDownloadBytes},
      {kMaxScanRecordsKey, maxScanRecords, kMaxScanRecordsLimit, 0, &settings->maxScanRecords},
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
}

void readSecuritySettings() {
  constexpr size_t kValueBytes = kConfigurationValueChars + 1;
  char texts[4][kValueBytes];
  const char* keys[4] = {kSelfUpdateKey, kMaxCatalogKey, kMaxDownloadKey, kMaxScanRecordsKey};
  const char* found[4] = {};
  for (int i = 0; i < 4; ++i) {
    if (getConfigurationValue(keys[i], texts[i], kValueBytes) == kConfigurationValueFound) {
      found[i] = texts[i];
    }
  }
  SecuritySettings settings;
  parseSecuritySettings(found[0], found[1], found[2], found[3], &settings);
  current = settings;
}

const SecuritySettings& securitySettings() {
  return current;
}

void setSecuritySettings(const SecuritySettings& settings) {
  current = settings;
}

}  // namespace slm
