// The reader of the agent's configuration file: key=value lines with twenty-five known keys, loaded
// once at start-up into a process-wide list of texts and freed again before the worker threads
// need anything from it. Loading, look-ups and freeing all run on the thread that starts the agent
// (or an on-demand run), so the list has no lock.
#pragma once

#include <cstddef>
#include <cstdint>

namespace slm {

constexpr int kConfigurationKeyCount = 25;
// The keys in the order in which a line is tried against them. The keys of today's systems (the
// exec monitor, the self-update's rule, the bounds on what the agent takes in, TLS and site
// signatures) come last so that the other keys read as they always have.
constexpr const char* kConfigurationKeys[kConfigurationKeyCount] = {"agentid",
                                                                    "divisionid",
                                                                    "tag",
                                                                    "customer",
                                                                    "server",
                                                                    "port",
                                                                    "path",
                                                                    "server_security",
                                                                    "use_proxy",
                                                                    "proxy",
                                                                    "proxy_port",
                                                                    "proxy_security",
                                                                    "trace_level",
                                                                    "trace_size",
                                                                    "driver_conf_file",
                                                                    "exec_monitor",
                                                                    "self_update",
                                                                    "max_catalog_mb",
                                                                    "max_download_mb",
                                                                    "max_scan_records",
                                                                    "server_tls",
                                                                    "tls_ca_file",
                                                                    "tls_pin_sha256",
                                                                    "signature_policy",
                                                                    "site_keys_file"};

constexpr size_t kConfigurationKeyField = 50;     // key text, terminated: at most 49 characters
constexpr size_t kConfigurationValueChars = 200;  // value text, at most 200 characters
constexpr size_t kConfigurationLineBytes = 1024;  // longer lines are read as several lines

constexpr int kConfigurationLoaded = 1;
constexpr int kConfigurationCannotOpen = -1;
// A configuration is already loaded, the list cannot be made, or a key occurs twice.
constexpr int kConfigurationRefused = -2;
constexpr int kConfigurationEmptyValue = -4;

// Loads the file at `path` (already resolved under the root). On kConfigurationEmptyValue the
// entries before the offending line stay loaded; on a duplicate key nothing stays loaded.
[[nodiscard]] int loadConfigurationFile(const char* path);

constexpr int kConfigurationValueFound = 1;
constexpr int kConfigurationValueAbsent = -1;

// Copies at most `size` - 1 characters of the value of `key` (exact, case-sensitive match) into
// `buffer`, always terminated. kConfigurationValueAbsent when the key was not given or nothing is
// loaded; `buffer` is then left as it was.
[[nodiscard]] int getConfigurationValue(const char* key, char* buffer, size_t size);

void deleteConfigurationVariables();

// Reads a signed decimal: optional white space, one optional sign, digits, optional white space.
// Anything else makes the result 0. Digits accumulate without an overflow check (wrapping).
int64_t aToSlmInt64(const char* text);

}  // namespace slm
