// The site-signed manifest of a self-update: the version it installs, its files with their
// SHA-256, the exact installation command line and the date after which it is void. Parsing takes
// the manifest's bytes; the checks compare it with the server's offer, the agent's own version
// and the agent's clock. No state.
//
// The text, lines ending in a line feed, in this order:
//   kvdagent-site-manifest-v1
//   version 1.1.1.52
//   not-after 2027-06-30T00:00:00Z
//   command /tmp/qsam/install.sh -q
//   file <SHA-256, 64 lower-case hexadecimal digits> install.sh
//   file <SHA-256> kvdagent
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent_core/site_signature.h"

namespace slm {

constexpr char kSiteManifestSuffix[] = ".manifest";
constexpr char kSiteManifestHeader[] = "kvdagent-site-manifest-v1";
// A manifest is a few lines per file; anything larger is refused.
constexpr size_t kSiteManifestMaxBytes = 64 * 1024;

struct SiteManifestFile {
  std::string name;
  uint8_t sha256[kSha256Size];
};

struct SiteManifest {
  std::string version;
  int64_t notAfter = 0;  // seconds since the Unix epoch
  std::string command;
  std::vector<SiteManifestFile> files;
};

constexpr int kSiteManifestParsed = 0;
constexpr int kSiteManifestMalformed = 1;
constexpr int kSiteManifestNoMemory = 2;

// Parses the `length` bytes at `text`. kSiteManifestParsed with `manifest` filled when the text is
// exactly the layout above: the header line, then version (dotted decimal numbers), not-after
// (a UTC time as shown), command (the rest of the line, not empty) once each, then one or more
// file lines with distinct names (no "/", not empty), each line ending in a line feed.
// Otherwise kSiteManifestMalformed with `*badLine` the 1-based number of the first line at fault.
[[nodiscard]] int parseSiteManifest(const char* text, size_t length, SiteManifest* manifest,
                                    size_t* badLine);

// Whether `text` is a version of dot-separated decimal numbers (1 to 9 digits each, at most 16).
bool isDottedVersion(const char* text);
// Compares two dotted versions number by number, a missing number counting as 0: negative, 0 or
// positive as `a` is older than, the same as or newer than `b`. Both must be dotted versions.
int compareDottedVersions(const char* a, const char* b);

constexpr int kSiteManifestAccepted = 0;
constexpr int kSiteManifestNotNewer = 1;      // its version is not newer than the agent's
constexpr int kSiteManifestExpired = 2;       // `now` is past its not-after time
constexpr int kSiteManifestOtherCommand = 3;  // the server's command line is not its command
constexpr int kSiteManifestNotListed = 4;     // an offered file is not in it: `*detail` its index
constexpr int kSiteManifestNotOffered = 5;    // a file of it is not offered: `*detail` its index

// Checks `manifest` against the agent's version, its clock and the server's offer: the command
// line and the local names of the `nameCount` files in `names`. kSiteManifestAccepted, or the
// code of the first rule broken in the order above.
[[nodiscard]] int checkSiteManifest(const SiteManifest& manifest, const char* agentVersion,
                                    int64_t now, const char* commandLine, const char* const* names,
                                    size_t nameCount, size_t* detail);

// The manifest's entry for the file `name`, or null.
const SiteManifestFile* findManifestFile(const SiteManifest& manifest, const char* name);

}  // namespace slm
