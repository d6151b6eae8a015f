// The verification context is the imported public key, held in one process-wide slot. The mutex
// only keeps an import or release from racing a verification; downloads run one at a time.
#include "agent_core/verifySign.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <mutex>

#include "signing_key.h"

namespace slm {
namespace {

static_assert(sizeof(kSigningPublicKey) == kPublicKeyDerSize,
              "the built-in signing key must be a 94-byte DER SubjectPublicKeyInfo");

std::mutex rsa_mutex;
EVP_PKEY* rsa_public_key = nullptr;  // guarded by rsa_mutex

struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

// A failed check leaves the library's error queue filled on this thread; it is emptied so that
// the next check starts clean. Returns kSignatureInvalid.
int rejectSignature() {
  ERR_clear_error();
  fflush(stdout);
  return kSignatureInvalid;
}

}  // namespace

int initSlmRSAContext() {
  std::lock_guard<std::mutex> lock(rsa_mutex);
  if (rsa_public_key != nullptr) return kRsaContextReady;
  const unsigned char* der = kSigningPublicKey;
  EVP_PKEY* key = d2i_PUBKEY(nullptr, &der, static_cast<long>(sizeof(kSigningPublicKey)));
  if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    EVP_PKEY_free(key);
    ERR_clear_error();
    printf("RSA import public key read failed");
    fflush(stdout);
    return kRsaContextFailed;
  }
  rsa_public_key = key;
  return kRsaContextReady;
}

int disposeSlmRSAContext() {
  std::lock_guard<std::mutex> lock(rsa_mutex);
  if (rsa_public_key == nullptr) return kRsaContextFailed;
  EVP_PKEY_free(rsa_public_key);
  rsa_public_key = nullptr;
  return kRsaContextReady;
}

int verifySignature(FILE* file, const uint8_t* signature) {
  std::lock_guard<std::mutex> lock(rsa_mutex);
  if (file == nullptr || signature == nullptr) return kSignatureInvalid;
  if (rsa_public_key == nullptr) {
    printf("init Failed! Function name: %s\n", "initSlmRSAContext");
    return rejectSignature();
  }
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (ctx == nullptr) {
    printf("init Failed! Function name: %s\n", "EVP_MD_CTX_new");
    return rejectSignature();
  }
  if (EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_md5(), nullptr, rsa_public_key) != 1) {
    printf("init Failed! Function name: %s\n", "EVP_DigestVerifyInit");
    return rejectSignature();
  }
  if (fseek(file, 0, SEEK_SET) != 0) {
    printf("Error reading file in hash fuction...");
    return rejectSignature();
  }
  unsigned char block[kDigestBlockSize];
  size_t got = 0;
  while ((got = fread(block, 1, sizeof(block), file)) > 0) {
    if (EVP_DigestVerifyUpdate(ctx.get(), block, got) != 1) {
      printf("Hashing failed (feeding): %s!\n", "MD5");
      return rejectSignature();
    }
  }
  if (ferror(file)) {
    printf("Error reading file in hash fuction...");
    return rejectSignature();
  }
  if (EVP_DigestVerifyFinal(ctx.get(), signature, kSignatureSize) != 1) {
    printf("rsaVerify(pubKey) failed!\n");
    return rejectSignature();
  }
  return kSignatureValid;
}

}  // namespace slm
