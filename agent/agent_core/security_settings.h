// The settings that bound what the agent trusts and takes in: how a self-update may run, the
// largest answers, downloads and scans it accepts, TLS to its servers and the site's own
// signatures. Read once from the loaded configuration at start-up (and by an on-demand run),
// before any worker thread starts; only read afterwards.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/slm_conf.h"

namespace slm {

constexpr char kSelfUpdateKey[] = "self_update";
constexpr char kMaxCatalogKey[] = "max_catalog_mb";
constexpr char kMaxDownloadKey[] = "max_download_mb";
constexpr char kMaxScanRecordsKey[] = "max_scan_records";
constexpr char kServerTlsKey[] = "server_tls";
constexpr char kTlsCaFileKey[] = "tls_ca_file";
constexpr char kTlsPinKey[] = "tls_pin_sha256";
constexpr char kSignaturePolicyKey[] = "signature_policy";
constexpr char kSiteKeysFileKey[] = "site_keys_file";

// The keys in the order parseSecuritySettings takes their texts.
constexpr size_t kSecurityKeyCount = 9;
constexpr const char* kSecurityKeys[kSecurityKeyCount] = {
    kSelfUpdateKey, kMaxCatalogKey,      kMaxDownloadKey,  kMaxScanRecordsKey, kServerTlsKey,
    kTlsCaFileKey,  kSignaturePolicyKey, kSiteKeysFileKey, kTlsPinKey};

// strict: the installer runs from an argv, never through a shell, and only a verified download;
// legacy: the server's command line goes to the shell as it is; off: no self-update is queued.
enum class SelfUpdateMode { kStrict, kLegacy, kOff };

// legacy: the server's RSA signatures alone; site: every signed download also needs the site's
// own signature, and a self-update its signed manifest.
enum class SignaturePolicy { kLegacy, kSite };

constexpr int64_t kDefaultMaxCatalogMb = 256;
constexpr int64_t kDefaultMaxDownloadMb = 256;
// Every service answer but the catalog's is refused above this; downloads, signatures included,
// have their own bound.
constexpr int64_t kMaxServiceAnswerBytes = 1 << 20;
constexpr int64_t kDefaultMaxScanRecords = 2'000'000;
constexpr size_t kSecurityTextSize = kConfigurationValueChars + 1;

struct SecuritySettings {
  SelfUpdateMode selfUpdate = SelfUpdateMode::kStrict;
  int64_t maxCatalogBytes = kDefaultMaxCatalogMb << 20;
  int64_t maxDownloadBytes = kDefaultMaxDownloadMb << 20;
  int64_t maxScanRecords = kDefaultMaxScanRecords;
  bool serverTls = false;
  char tlsCaFile[kSecurityTextSize] = "";  // empty: the system's trust store
  char tlsPins[kSecurityTextSize] =
      "";  // comma-separated base64 SHA-256 of a public key; empty: none
  SignaturePolicy signaturePolicy = SignaturePolicy::kLegacy;
  char siteKeysFile[kSecurityTextSize] = "";
};

// Parses the keys' texts, given in the order of kSecurityKeys (null: the key is absent), into
// `settings`. A value that is not understood is traced as a WARNING naming the key; it leaves that
// setting at its default, except that a TLS or signature switch not understood is taken as the
// stricter choice ("yes", "site"), so that a typing error never weakens the agent.
void parseSecuritySettings(const char* const texts[kSecurityKeyCount], SecuritySettings* settings);

// Reads the keys from the loaded configuration into the process-wide settings.
void readSecuritySettings();
const SecuritySettings& securitySettings();
// Replaces the process-wide settings; for start-up and tests.
void setSecuritySettings(const SecuritySettings& settings);

}  // namespace slm
