// Site keys are read from their file for every use, so that a rotated key file takes effect at the
// next download without a restart; the file is small.
#include "agent_core/site_signature.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

struct OpenSslDeleter {
  void operator()(void* memory) const { OPENSSL_free(memory); }
};

constexpr size_t kDigestBlockBytes = 16 * 1024;
// The label of a PEM public key block.
constexpr char kPublicKeyBlock[] = "PUBLIC KEY";

// Whoever may write the keys file chooses what the agent installs: only root (or the agent's own
// user) may.
const char* refusalOf(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != 0 && status.st_uid != geteuid()) return "it is not owned by root";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "its group or others may write it";
  return nullptr;
}

}  // namespace

void PkeyDeleter::operator()(EVP_PKEY* key) const {
  EVP_PKEY_free(key);
}

int readSiteKeys(FILE* pem, SiteKeys* keys) {
  keys->clear();
  int result = kSiteKeysLoaded;
  try {
    ERR_clear_error();
    for (;;) {
      char* name = nullptr;
      char* header = nullptr;
      unsigned char* data = nullptr;
      long length = 0;
      if (PEM_read(pem, &name, &header, &data, &length) != 1) {
        // The end of the text shows as a missing start line; anything else is a damaged block.
        const unsigned long error = ERR_peek_last_error();
        if (ERR_GET_LIB(error) != ERR_LIB_PEM || ERR_GET_REASON(error) != PEM_R_NO_START_LINE) {
          result = kSiteKeysUnreadable;
        } else if (keys->empty()) {
          result = kSiteKeysNone;
        }
        break;
      }
      const std::unique_ptr<char, OpenSslDeleter> nameOwner(name), headerOwner(header);
      const std::unique_ptr<unsigned char, OpenSslDeleter> dataOwner(data);
      const unsigned char* der = data;
      SiteKey key(strcmp(name, kPublicKeyBlock) == 0 ? d2i_PUBKEY(nullptr, &der, length) : nullptr);
      if (key == nullptr || der != data + length) {
        result = kSiteKeysUnreadable;
        break;
      }
      if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519) {
        result = kSiteKeysNotEd25519;
        break;
      }
      keys->push_back(std::move(key));
    }
  } catch (const std::bad_alloc&) {
    result = kSiteKeysNoMemory;
  }
  ERR_clear_error();
  if (result != kSiteKeysLoaded) keys->clear();
  return result;
}

int loadSiteKeys(const char* path, SiteKeys* keys) {
  keys->clear();
  if (path == nullptr || path[0] == '\0') {
    SLM_TRACE(0, "ERROR - Site keys file refused: site_keys_file is not set");
    return kSiteKeysRefusedFile;
  }
  const std::string rooted = rootedPath(path);
  const int fd = open(rooted.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    SLM_TRACE(0, "ERROR - Site keys file %s refused: it cannot be opened (errno=%d)", path, errno);
    return kSiteKeysRefusedFile;
  }
  // The checks look at the file that was opened, so nothing can be swapped in after them.
  FileHandle file(fdopen(fd, "r"));
  if (file == nullptr) {
    close(fd);
    SLM_TRACE(0, "ERROR - Site keys file %s refused: it cannot be opened (errno=%d)", path, errno);
    return kSiteKeysRefusedFile;
  }
  struct stat status {};
  const char* refusal = fstat(fd, &status) != 0 ? "it cannot be examined" : refusalOf(status);
  if (refusal != nullptr) {
    SLM_TRACE(0, "ERROR - Site keys file %s refused: %s (owner %u, mode %04o)", path, refusal,
              static_cast<unsigned>(status.st_uid), static_cast<unsigned>(status.st_mode & 07777));
    return kSiteKeysRefusedFile;
  }
  const int result = readSiteKeys(file.get(), keys);
  static const char* const kReasons[] = {nullptr,
                                         "it holds no public key",
                                         "a block in it is no public key",
                                         "a key in it is not an Ed25519 key",
                                         nullptr,
                                         "no memory"};
  if (result != kSiteKeysLoaded) {
    SLM_TRACE(0, "ERROR - Site keys file %s refused: %s", path, kReasons[result]);
  }
  return result;
}

int sha256OfFile(FILE* file, uint8_t digest[kSha256Size]) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (ctx == nullptr || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
      fseek(file, 0, SEEK_SET) != 0) {
    ERR_clear_error();
    return kDigestFailed;
  }
  std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[kDigestBlockBytes]);
  if (block == nullptr) return kDigestFailed;
  size_t got = 0;
  while ((got = fread(block.get(), 1, kDigestBlockBytes, file)) > 0) {
    if (EVP_DigestUpdate(ctx.get(), block.get(), got) != 1) {
      ERR_clear_error();
      return kDigestFailed;
    }
  }
  unsigned int length = 0;
  if (ferror(file) || EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1 ||
      length != kSha256Size) {
    ERR_clear_error();
    return kDigestFailed;
  }
  return kDigestDone;
}

std::string sha256Hex(const uint8_t digest[kSha256Size]) {
  static const char kHex[] = "0123456789abcdef";
  std::string text(2 * kSha256Size, '0');
  for (size_t i = 0; i < kSha256Size; ++i) {
    text[2 * i] = kHex[digest[i] >> 4];
    text[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  return text;
}

std::string siteSignedMessage(const char* name, const uint8_t digest[kSha256Size]) {
  return std::string(kSiteSignatureHeader) + name + "\n" + sha256Hex(digest) + "\n";
}

int verifySiteSignature(const SiteKeys& keys, const char* name, const uint8_t digest[kSha256Size],
                        const uint8_t signature[kSiteSignatureSize]) {
  std::string message;
  try {
    message = siteSignedMessage(name, digest);
  } catch (const std::bad_alloc&) {
    return kSiteSignatureInvalid;
  }
  for (const SiteKey& key : keys) {
    MdCtxPtr ctx(EVP_MD_CTX_new());
    // Ed25519 signs the message itself: no digest is named.
    const bool valid = ctx != nullptr &&
                       EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
                       EVP_DigestVerify(ctx.get(), signature, kSiteSignatureSize,
                                        reinterpret_cast<const unsigned char*>(message.data()),
                                        message.size()) == 1;
    ERR_clear_error();
    if (valid) return kSiteSignatureValid;
  }
  return kSiteSignatureInvalid;
}

}  // namespace slm
