// The site-signed manifest of a self-update (parseSiteManifest) and the checks of an offer against
// it. A manifest that parses is whole: a dotted version, at least one file, distinct names without
// "/", no control byte but a tab in its command; and the offer it describes itself passes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "agent_core/site_manifest.h"
#include "support/fuzz_root.h"

using namespace slm;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SiteManifest manifest;
  size_t badLine = 0;
  const int result =
      parseSiteManifest(reinterpret_cast<const char*>(data), size, &manifest, &badLine);
  FUZZ_CHECK(result == kSiteManifestParsed || result == kSiteManifestMalformed);
  if (result != kSiteManifestParsed) {
    FUZZ_CHECK(badLine >= 1);
    return 0;
  }
  FUZZ_CHECK(badLine == 0);
  FUZZ_CHECK(isDottedVersion(manifest.version.c_str()));
  FUZZ_CHECK(compareDottedVersions(manifest.version.c_str(), manifest.version.c_str()) == 0);
  FUZZ_CHECK(!manifest.command.empty());
  for (char c : manifest.command) {
    FUZZ_CHECK(c == '\t' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f));
  }
  FUZZ_CHECK(!manifest.files.empty());
  std::vector<const char*> names;
  for (const SiteManifestFile& file : manifest.files) {
    FUZZ_CHECK(!file.name.empty() && file.name.find('/') == std::string::npos);
    FUZZ_CHECK(findManifestFile(manifest, file.name.c_str()) == &file);
    names.push_back(file.name.c_str());
  }
  // Its own offer, on its last valid second, from the oldest agent there is.
  size_t detail = 0;
  const int checked = checkSiteManifest(manifest, "0", manifest.notAfter, manifest.command.c_str(),
                                        names.data(), names.size(), &detail);
  FUZZ_CHECK(checked == (compareDottedVersions(manifest.version.c_str(), "0") > 0
                             ? kSiteManifestAccepted
                             : kSiteManifestNotNewer));
  return 0;
}
