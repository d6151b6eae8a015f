// The site's own signatures: Ed25519 signatures, by one of the keys the machine's administrator
// lists in a root-owned file, over a downloaded file's SHA-256 and the name it is stored under. A
// file signed for one name does not pass under another. No state: the keys are read for each use.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace slm {

constexpr size_t kSha256Size = 32;
// A site signature file holds the raw Ed25519 signature and nothing else.
constexpr size_t kSiteSignatureSize = 64;
constexpr char kSiteSignatureSuffix[] = ".sig";
// The signed message is this line, the file's name and a line feed, then the file's SHA-256 in
// lower-case hexadecimal and a line feed.
constexpr char kSiteSignatureHeader[] = "kvdagent-site-sig-v1\n";

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const;
};
using SiteKey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using SiteKeys = std::vector<SiteKey>;

constexpr int kSiteKeysLoaded = 0;
constexpr int kSiteKeysNone = 1;        // no key in the text
constexpr int kSiteKeysUnreadable = 2;  // a PEM block that is no public key
constexpr int kSiteKeysNotEd25519 = 3;  // a public key of another kind
constexpr int kSiteKeysRefusedFile =
    4;  // the file itself: unset, missing, or others could write it
constexpr int kSiteKeysNoMemory = 5;

// Reads every PEM public key of `pem` into `keys`. kSiteKeysLoaded with at least one key, all of
// them Ed25519; otherwise the code of the first fault, and `keys` is left empty.
[[nodiscard]] int readSiteKeys(FILE* pem, SiteKeys* keys);

// Opens the site keys file `path` (resolved under the agent's root) and reads its keys, but only
// when it is a regular file owned by root (or by the agent's own user) that neither its group nor
// others may write. Any other outcome is traced as an ERROR line naming the file and the reason.
[[nodiscard]] int loadSiteKeys(const char* path, SiteKeys* keys);

constexpr int kDigestDone = 0;
constexpr int kDigestFailed = -1;
// The SHA-256 of the whole of `file`, read from its start, into `digest`.
[[nodiscard]] int sha256OfFile(FILE* file, uint8_t digest[kSha256Size]);

// The lower-case hexadecimal text of a SHA-256 (64 characters).
std::string sha256Hex(const uint8_t digest[kSha256Size]);

// The message a site signature signs for the file `name` with `digest`.
std::string siteSignedMessage(const char* name, const uint8_t digest[kSha256Size]);

constexpr int kSiteSignatureValid = 0;
constexpr int kSiteSignatureInvalid = -1;
// kSiteSignatureValid when one of `keys` made `signature` over the message for `name` and
// `digest`.
[[nodiscard]] int verifySiteSignature(const SiteKeys& keys, const char* name,
                                      const uint8_t digest[kSha256Size],
                                      const uint8_t signature[kSiteSignatureSize]);

}  // namespace slm
