// The configuration list and its line parser. A line names its key by the first table key that
// stands as a word before the line's first "="; everything the parser does not recognise is
// skipped without a word, because the file is edited by hand and read by a daemon with no console.
#include "agent_core/slm_conf.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"

namespace slm {
namespace {

struct ConfigurationEntry {
  char key[kConfigurationKeyField];
  char value[kConfigurationValueChars + 1];
};

// Null while nothing is loaded. Used only by the thread that loads the file (see the header).
std::optional<std::vector<ConfigurationEntry>> configuration;

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// Only a "#" in the first column makes a comment. A "#" after nothing but blanks and tabs is
// indentation gone wrong, not a comment, so "  #agentid=1" still sets agentid; anywhere else a
// "#" is part of the text, so "path=/x#port=8" is a path and "x#port=8" is no key at all.
bool isIndentedHash(const char* line, const char* hash) {
  if (*hash != '#') return false;
  while (line < hash && isBlank(*line)) ++line;
  return line == hash;
}

// The table index of the key that `line` names, or -1. Only the first occurrence of each key is
// looked at, so "proxy_port=1" is never taken for "port" even though "port" appears in it.
int matchKey(const char* line, const char** keyStart) {
  for (int index = 0; index < kConfigurationKeyCount; ++index) {
    const char* key = kConfigurationKeys[index];
    const char* found = strstr(line, key);
    if (found == nullptr) continue;
    char after = found[strlen(key)];
    if (!isBlank(after) && after != '=') continue;
    if (found != line && !isBlank(found[-1]) && !isIndentedHash(line, found - 1)) continue;
    *keyStart = found;
    return index;
  }
  return -1;
}

void storeValue(const char* text, char* value) {
  size_t length = strcspn(text, "\n");
  if (length > kConfigurationValueChars) length = kConfigurationValueChars;
  memcpy(value, text, length);
  while (length > 0 && (isBlank(value[length - 1]) || value[length - 1] == '\r')) --length;
  value[length] = '\0';
}

}  // namespace

int loadConfigurationFile(const char* path) {
  FileHandle file(fopen(path, "re"));
  if (!file) return kConfigurationCannotOpen;
  if (configuration) return kConfigurationRefused;
  try {
    configuration.emplace();
  } catch (const std::bad_alloc&) {
    return kConfigurationRefused;
  }
  bool seen[kConfigurationKeyCount] = {};
  char line[kConfigurationLineBytes];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    if (line[0] == '#') continue;
    const char* keyStart = nullptr;
    int index = matchKey(line, &keyStart);
    if (index < 0) continue;
    const char* equals = strchr(line, '=');
    if (equals == nullptr || equals < keyStart) continue;
    const char* value = equals + 1;
    while (isBlank(*value)) ++value;
    ConfigurationEntry entry;
    storeValue(value, entry.value);
    // Empty is what is left once the trailing blanks, tabs and carriage returns are gone: a value
    // of nothing but those (a CR-LF line end, or "\r\t" before it) is as empty as none.
    if (entry.value[0] == '\0') return kConfigurationEmptyValue;
    if (seen[index]) {
      configuration.reset();
      return kConfigurationRefused;
    }
    copyBounded(entry.key, kConfigurationKeyField - 1, kConfigurationKeys[index]);
    try {
      configuration->push_back(entry);
    } catch (const std::bad_alloc&) {
      configuration.reset();
      return kConfigurationRefused;
    }
    seen[index] = true;
  }
  return kConfigurationLoaded;
}

int getConfigurationValue(const char* key, char* buffer, size_t size) {
  if (!configuration) return kConfigurationValueAbsent;
  for (const ConfigurationEntry& entry : *configuration) {
    if (strcmp(entry.key, key) != 0) continue;
    if (size > 0) {
      copyBounded(buffer, size - 1, entry.value);
      buffer[size - 1] = '\0';
    }
    return kConfigurationValueFound;
  }
  return kConfigurationValueAbsent;
}

void deleteConfigurationVariables() {
  configuration.reset();
}

int64_t aToSlmInt64(const char* text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  while (isspace(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  } else if (!isdigit(*p)) {
    return 0;
  }
  // Unsigned arithmetic: an over-long number wraps instead of overflowing a signed value.
  uint64_t magnitude = 0;
  while (isdigit(*p)) magnitude = magnitude * 10 + static_cast<uint64_t>(*p++ - '0');
  while (isspace(*p)) ++p;
  if (*p != '\0') return 0;
  return static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
}

}  // namespace slm
