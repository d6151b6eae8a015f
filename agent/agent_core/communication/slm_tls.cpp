// The TLS client context, pins and failure reasons. The process's context is cached with what it
// was built from: the CA file's path and identity (device, inode, size, change time) and the pins'
// text, so that a replaced bundle or new settings take effect at the next exchange.
#include "agent_core/communication/slm_tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "agent_core/security_settings.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

constexpr int kSha256Bytes = 32;
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Whether `entry` (`length` characters) is the base64 of 32 bytes: 43 characters, the last of
// which carries 4 bits (its 2 low bits 0), then the '=' or nothing.
bool isSha256Base64(const char* entry, size_t length) {
  constexpr size_t kDataChars = kTlsPinChars - 1;
  if (length == kTlsPinChars && entry[kDataChars] == '=') length = kDataChars;
  if (length != kDataChars) return false;
  for (size_t i = 0; i < length; ++i) {
    const char* at = entry[i] == '\0' ? nullptr : strchr(kBase64Alphabet, entry[i]);
    if (at == nullptr) return false;
    if (i == length - 1 && ((at - kBase64Alphabet) & 3) != 0) return false;
  }
  return true;
}

const char* lastErrorReason(const char* fallback) {
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  return reason != nullptr ? reason : fallback;
}

// What the cached context was built from. Guarded by cacheMutex.
struct ContextCache {
  SSL_CTX* context = nullptr;
  std::string caPath;
  dev_t caDevice = 0;
  ino_t caInode = 0;
  off_t caSize = 0;
  timespec caChanged{};
  std::string pinsText;
  TlsPins pins;
};

std::mutex cacheMutex;
ContextCache cache;

}  // namespace

int parseTlsPins(const char* text, TlsPins* pins) {
  *pins = TlsPins{};
  int refused = 0;
  for (const char* entry = text; *entry != '\0';) {
    const char* end = strchr(entry, ',');
    if (end == nullptr) end = entry + strlen(entry);
    const char* first = entry;
    const char* last = end;
    while (first < last && (*first == ' ' || *first == '\t')) ++first;
    while (last > first && (last[-1] == ' ' || last[-1] == '\t')) --last;
    entry = *end == ',' ? end + 1 : end;
    const auto length = static_cast<size_t>(last - first);
    if (length == 0) continue;
    pins->configured = true;
    if (!isSha256Base64(first, length) || pins->count == kMaxTlsPins) {
      SLM_TRACE(0,
                "ERROR - Bad %s entry '%.*s': not one of %d base64 SHA-256 values, it matches "
                "no key",
                kTlsPinKey, static_cast<int>(length), first, kMaxTlsPins);
      ++refused;
      continue;
    }
    char* pin = pins->pins[pins->count++];
    memcpy(pin, first, kTlsPinChars - 1);
    pin[kTlsPinChars - 1] = '=';
    pin[kTlsPinChars] = '\0';
  }
  return refused;
}

SSL_CTX* newTlsContext(const char* caFile) {
  ERR_clear_error();
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (context == nullptr) {
    SLM_TRACE(0, "ERROR - TLS context not created: %s", lastErrorReason("no memory"));
    return nullptr;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  bool ready = SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1;
  if (caFile[0] != '\0') {
    if (ready && SSL_CTX_load_verify_file(context, caFile) != 1) {
      SLM_TRACE(0, "ERROR - TLS CA file %s cannot be used: %s", caFile,
                lastErrorReason("no certificate found"));
      ready = false;
    }
  } else if (ready && SSL_CTX_set_default_verify_paths(context) != 1) {
    SLM_TRACE(0, "ERROR - The system's trust store cannot be used: %s",
              lastErrorReason("not found"));
    ready = false;
  }
  if (!ready) {
    SSL_CTX_free(context);
    return nullptr;
  }
  return context;
}

SSL_CTX* acquireTlsContext(TlsPins* pins) {
  const SecuritySettings& settings = securitySettings();
  const std::string caPath = settings.tlsCaFile[0] != '\0' ? rootedPath(settings.tlsCaFile) : "";
  struct stat caStatus {};
  if (!caPath.empty() && stat(caPath.c_str(), &caStatus) != 0) {
    SLM_TRACE(0, "ERROR - TLS CA file %s cannot be read (errno=%d)", caPath.c_str(), errno);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(cacheMutex);
  const bool current = cache.context != nullptr && cache.caPath == caPath &&
                       cache.pinsText == settings.tlsPins && cache.caDevice == caStatus.st_dev &&
                       cache.caInode == caStatus.st_ino && cache.caSize == caStatus.st_size &&
                       cache.caChanged.tv_sec == caStatus.st_ctim.tv_sec &&
                       cache.caChanged.tv_nsec == caStatus.st_ctim.tv_nsec;
  if (!current) {
    SSL_CTX* context = newTlsContext(caPath.c_str());
    if (context == nullptr) return nullptr;
    SSL_CTX_free(cache.context);
    cache.context = context;
    cache.caPath = caPath;
    cache.caDevice = caStatus.st_dev;
    cache.caInode = caStatus.st_ino;
    cache.caSize = caStatus.st_size;
    cache.caChanged = caStatus.st_ctim;
    cache.pinsText = settings.tlsPins;
    (void)parseTlsPins(settings.tlsPins, &cache.pins);
  }
  SSL_CTX_up_ref(cache.context);
  *pins = cache.pins;
  return cache.context;
}

bool setTlsServerName(SSL* ssl, const char* host) {
  if (host[0] == '\0') return false;  // an empty name would switch the check off
  in6_addr address;
  if (inet_pton(AF_INET, host, &address) == 1 || inet_pton(AF_INET6, host, &address) == 1) {
    // An address is no server name to send; the certificate must list it among its addresses.
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host) == 1;
  }
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, host) == 1 && SSL_set_tlsext_host_name(ssl, host) == 1;
}

bool peerKeyPin(SSL* ssl, char* out) {
  X509* certificate = SSL_get0_peer_certificate(ssl);
  if (certificate == nullptr) return false;
  unsigned char* der = nullptr;
  int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
  if (length <= 0) return false;
  unsigned char digest[kSha256Bytes];
  unsigned int digestLength = 0;
  bool hashed = EVP_Digest(der, static_cast<size_t>(length), digest, &digestLength, EVP_sha256(),
                           nullptr) == 1 &&
                digestLength == kSha256Bytes;
  OPENSSL_free(der);
  if (!hashed) return false;
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out), digest, kSha256Bytes);
  return true;
}

bool peerMatchesPins(SSL* ssl, const TlsPins& pins) {
  if (!pins.configured) return true;
  char pin[kTlsPinChars + 1];
  if (!peerKeyPin(ssl, pin)) return false;
  for (int i = 0; i < pins.count; ++i) {
    if (strcmp(pin, pins.pins[i]) == 0) return true;
  }
  return false;
}

void tlsFailureReason(SSL* ssl, int sslError, char* out, size_t size) {
  long verdict = SSL_get_verify_result(ssl);
  if (verdict != X509_V_OK) {
    snprintf(out, size, "certificate verify failed (%s)", X509_verify_cert_error_string(verdict));
  } else if (ERR_peek_last_error() != 0) {
    snprintf(out, size, "%s", lastErrorReason("unknown error"));
  } else if (sslError == SSL_ERROR_SYSCALL && errno != 0) {
    snprintf(out, size, "%s", strerror(errno));
  } else {
    snprintf(out, size, "the connection was closed");
  }
}

}  // namespace slm
