// What the agent trusts when it talks TLS to its servers: the client context (TLS 1.2 or later,
// the CA bundle or the system's trust store), the server's name as its certificate must carry it,
// the public-key pins and the reasons a handshake failed. The process keeps one context, built at
// the first TLS exchange and again when the settings or the CA file change, under one mutex; any
// thread may ask for it. The socket stream runs the handshake and the records.
#pragma once

#include <openssl/types.h>

#include <cstddef>

namespace slm {

constexpr int kMaxTlsPins = 8;
// A pin: the base64 text of a SHA-256, 43 characters and one '='.
constexpr int kTlsPinChars = 44;

struct TlsPins {
  bool configured = false;  // pins were set: a key that matches none of them is refused
  int count = 0;
  char pins[kMaxTlsPins][kTlsPinChars + 1] = {};
};

// Reads the comma-separated pins of `text` (blanks around an entry do not count; the '=' may be
// left off). An entry that is not the base64 of a SHA-256, or one past kMaxTlsPins, is traced as
// an ERROR and left out, so that it matches no key; `configured` still holds, so that a typing
// error never lets an unpinned key through. Returns the number of entries left out.
int parseTlsPins(const char* text, TlsPins* pins);

// A new client context: TLS 1.2 or later, the server verified against the PEM bundle at `caFile`
// or, when it is empty, the system's trust store. Null, after an ERROR line, when the bundle
// cannot be read.
SSL_CTX* newTlsContext(const char* caFile);

// The process's context for the current security settings (its CA file resolved under the root)
// and their pins in `pins`. The caller owns one reference to the context (SSL_CTX_free). Null,
// after an ERROR line, when the context cannot be built.
SSL_CTX* acquireTlsContext(TlsPins* pins);

// Makes `ssl` check the server's certificate for `host`: a dotted or IPv6 address against its
// addresses, any other text against its DNS names (and sent as the server name). False when the
// library refuses the name.
bool setTlsServerName(SSL* ssl, const char* host);

// The base64 SHA-256 of the peer certificate's SubjectPublicKeyInfo into `out` (kTlsPinChars + 1
// bytes). False when there is no peer certificate.
bool peerKeyPin(SSL* ssl, char* out);
// True when no pins are configured or the peer's key pin is one of them.
bool peerMatchesPins(SSL* ssl, const TlsPins& pins);

// Why an operation on `ssl` failed with `sslError` (SSL_get_error), for an ERROR line: the
// certificate check's verdict, else the library's reason, else "the connection was closed".
void tlsFailureReason(SSL* ssl, int sslError, char* out, size_t size);

}  // namespace slm
