// The manifest parser reads the fixed order of lines strictly: whatever it does not expect is a
// fault, so that two readers can never disagree on what a signed manifest says.
#include "agent_core/site_manifest.h"

#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

namespace slm {
namespace {

constexpr size_t kVersionNumbersMax = 16;
constexpr size_t kVersionDigitsMax = 9;
// "YYYY-MM-DDTHH:MM:SSZ"
constexpr char kTimeLayout[] = "dddd-dd-ddTdd:dd:ddZ";
constexpr size_t kTimeLength = sizeof kTimeLayout - 1;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Control bytes have no place in a manifest line; a tab may separate the command's words.
bool isCleanLine(std::string_view line, bool tabAllowed) {
  for (char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && !(tabAllowed && c == '\t')) || byte == 0x7f) return false;
  }
  return true;
}

// The value after "KEY " on `line`, or false.
bool valueOf(std::string_view line, std::string_view key, std::string_view* value) {
  if (line.size() <= key.size() + 1 || line.compare(0, key.size(), key) != 0 ||
      line[key.size()] != ' ') {
    return false;
  }
  *value = line.substr(key.size() + 1);
  return true;
}

bool readTime(std::string_view text, int64_t* seconds) {
  if (text.size() != kTimeLength) return false;
  int fields[6] = {};
  int field = 0;
  for (size_t i = 0; i < kTimeLength; ++i) {
    if (kTimeLayout[i] != 'd') {
      if (text[i] != kTimeLayout[i]) return false;
      if (i > 0 && kTimeLayout[i - 1] == 'd') ++field;
      continue;
    }
    if (!isDigit(text[i])) return false;
    fields[field] = fields[field] * 10 + (text[i] - '0');
  }
  struct tm parts {};
  parts.tm_year = fields[0] - 1900;
  parts.tm_mon = fields[1] - 1;
  parts.tm_mday = fields[2];
  parts.tm_hour = fields[3];
  parts.tm_min = fields[4];
  parts.tm_sec = fields[5];
  const time_t value = timegm(&parts);
  // timegm carries an out-of-range field into the next (30 February becomes 2 March): only a
  // time that comes back as written is a real one.
  struct tm back {};
  if (gmtime_r(&value, &back) == nullptr || back.tm_year != fields[0] - 1900 ||
      back.tm_mon != fields[1] - 1 || back.tm_mday != fields[2] || back.tm_hour != fields[3] ||
      back.tm_min != fields[4] || back.tm_sec != fields[5]) {
    return false;
  }
  *seconds = static_cast<int64_t>(value);
  return true;
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// "HEX NAME": 64 lower-case hexadecimal digits, a blank, a name without "/".
bool readFileLine(std::string_view text, SiteManifestFile* file) {
  constexpr size_t kHexLength = 2 * kSha256Size;
  if (text.size() <= kHexLength + 1 || text[kHexLength] != ' ') return false;
  for (size_t i = 0; i < kSha256Size; ++i) {
    const int high = hexValue(text[2 * i]), low = hexValue(text[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    file->sha256[i] = static_cast<uint8_t>(high << 4 | low);
  }
  std::string_view name = text.substr(kHexLength + 1);
  if (name.find('/') != std::string_view::npos) return false;
  file->name.assign(name);
  return true;
}

// The next dotted number of `*text` (advanced past it and its dot), or 0 when none is left.
uint64_t nextNumber(const char** text) {
  uint64_t value = 0;
  while (isDigit(**text)) value = value * 10 + static_cast<uint64_t>(*(*text)++ - '0');
  if (**text == '.') ++*text;
  return value;
}

int parseLines(std::string_view text, SiteManifest* manifest, size_t* badLine) {
  size_t number = 0;
  std::string_view value;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    ++number;
    *badLine = number;
    // The last line too ends in a line feed: a manifest cut short is no manifest.
    if (end == std::string_view::npos) return kSiteManifestMalformed;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!isCleanLine(line, number == 4)) return kSiteManifestMalformed;
    switch (number) {
      case 1:
        if (line != kSiteManifestHeader) return kSiteManifestMalformed;
        break;
      case 2:
        if (!valueOf(line, "version", &value)) return kSiteManifestMalformed;
        manifest->version.assign(value);
        if (!isDottedVersion(manifest->version.c_str())) return kSiteManifestMalformed;
        break;
      case 3:
        if (!valueOf(line, "not-after", &value) || !readTime(value, &manifest->notAfter)) {
          return kSiteManifestMalformed;
        }
        break;
      case 4:
        if (!valueOf(line, "command", &value)) return kSiteManifestMalformed;
        manifest->command.assign(value);
        break;
      default: {
        SiteManifestFile file;
        if (!valueOf(line, "file", &value) || !readFileLine(value, &file) ||
            findManifestFile(*manifest, file.name.c_str()) != nullptr) {
          return kSiteManifestMalformed;
        }
        manifest->files.push_back(std::move(file));
      }
    }
  }
  *badLine = number + 1;
  return manifest->files.empty() ? kSiteManifestMalformed : kSiteManifestParsed;
}

}  // namespace

int parseSiteManifest(const char* text, size_t length, SiteManifest* manifest, size_t* badLine) {
  *manifest = SiteManifest{};
  *badLine = 0;
  try {
    const int result = parseLines(std::string_view(text, length), manifest, badLine);
    if (result == kSiteManifestParsed) *badLine = 0;
    return result;
  } catch (const std::bad_alloc&) {
    return kSiteManifestNoMemory;
  }
}

bool isDottedVersion(const char* text) {
  size_t numbers = 0;
  for (;;) {
    size_t digits = 0;
    while (isDigit(text[digits])) ++digits;
    if (digits == 0 || digits > kVersionDigitsMax || ++numbers > kVersionNumbersMax) return false;
    text += digits;
    if (*text == '\0') return true;
    if (*text++ != '.') return false;
  }
}

int compareDottedVersions(const char* a, const char* b) {
  while (*a != '\0' || *b != '\0') {
    const uint64_t left = nextNumber(&a), right = nextNumber(&b);
    if (left != right) return left < right ? -1 : 1;
  }
  return 0;
}

int checkSiteManifest(const SiteManifest& manifest, const char* agentVersion, int64_t now,
                      const char* commandLine, const char* const* names, size_t nameCount,
                      size_t* detail) {
  *detail = 0;
  if (compareDottedVersions(manifest.version.c_str(), agentVersion) <= 0) {
    return kSiteManifestNotNewer;
  }
  if (now > manifest.notAfter) return kSiteManifestExpired;
  if (manifest.command != commandLine) return kSiteManifestOtherCommand;
  for (size_t i = 0; i < nameCount; ++i) {
    if (findManifestFile(manifest, names[i]) == nullptr) {
      *detail = i;
      return kSiteManifestNotListed;
    }
  }
  for (size_t i = 0; i < manifest.files.size(); ++i) {
    bool offered = false;
    for (size_t n = 0; n < nameCount && !offered; ++n) {
      offered = manifest.files[i].name == names[n];
    }
    if (!offered) {
      *detail = i;
      return kSiteManifestNotOffered;
    }
  }
  return kSiteManifestAccepted;
}

const SiteManifestFile* findManifestFile(const SiteManifest& manifest, const char* name) {
  for (const SiteManifestFile& file : manifest.files) {
    if (file.name == name) return &file;
  }
  return nullptr;
}

}  // namespace slm
