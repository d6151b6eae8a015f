// The settings that bound what the agent trusts and takes in: how a self-update may run, and the
// largest answers, downloads and scans it accepts. Read once from the loaded configuration at
// start-up (and by an on-demand run), before any worker thread starts; only read afterwards.
#pragma once

#include <cstdint>

namespace slm {

constexpr char kSelfUpdateKey[] = "self_update";
constexpr char kMaxCatalogKey[] = "max_catalog_mb";
constexpr char kMaxDownloadKey[] = "max_download_mb";
constexpr char kMaxScanRecordsKey[] = "max_scan_records";

// strict: the installer runs from an argv, never through a shell, and only a verified download;
// legacy: the server's command line goes to the shell as it is; off: no self-update is queued.
enum class SelfUpdateMode { kStrict, kLegacy, kOff };

constexpr int64_t kDefaultMaxCatalogMb = 256;
constexpr int64_t kDefaultMaxDownloadMb = 256;
// Every service answer but the catalog's is refused above this; downloads, signatures included,
// have their own bound.
constexpr int64_t kMaxServiceAnswerBytes = 1 << 20;
constexpr int64_t kDefaultMaxScanRecords = 2'000'000;

struct SecuritySettings {
  SelfUpdateMode selfUpdate = SelfUpdateMode::kStrict;
  int64_t maxCatalogBytes = kDefaultMaxCatalogMb << 20;
  int64_t maxDownloadBytes = kDefaultMaxDownloadMb << 20;
  int64_t maxScanRecords = kDefaultMaxScanRecords;
};

// Parses the four keys' texts (null: the key is absent) into `settings`. A value that is not
// understood is traced as a WARNING naming the key and leaves that setting at its default.
void parseSecuritySettings(const char* selfUpdate, const char* maxCatalogMb,
                           const char* maxDownloadMb, const char* maxScanRecords,
                           SecuritySettings* settings);

// Reads the keys from the loaded configuration into the process-wide settings.
void readSecuritySettings();
const SecuritySettings& securitySettings();
// Replaces the process-wide settings; for start-up and tests.
void setSecuritySettings(const SecuritySettings& settings);

}  // namespace slm
