// Signature check for downloaded programs and kernel modules: an RSA (PKCS#1 v1.5) signature over
// the MD5 digest of the file, made with the deployment's signing key whose public half is built
// into the agent. One process-wide verification context, created before a signed download and
// released after it by the same caller; one download uses it at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace slm {

// Every signature is made with a 512-bit key, so it is exactly this long.
constexpr size_t kSignatureSize = 64;
// The built-in public key is a DER SubjectPublicKeyInfo block of this size.
constexpr size_t kPublicKeyDerSize = 94;
// The file is fed to the digest in blocks of this many bytes.
constexpr size_t kDigestBlockSize = 64;

constexpr int kRsaContextReady = 0;
constexpr int kRsaContextFailed = -1;

// Imports the built-in public key. kRsaContextReady, also when the context already exists;
// kRsaContextFailed when the key cannot be imported ("RSA import public key read failed" on
// standard output).
[[nodiscard]] int initSlmRSAContext();
// Releases the context; the next verification fails until initSlmRSAContext runs again. Returns
// kRsaContextReady, or kRsaContextFailed when there was no context.
int disposeSlmRSAContext();

constexpr int kSignatureValid = 0;
constexpr int kSignatureInvalid = -1;

// Reads the whole of `file` (from its start) and checks the kSignatureSize bytes at `signature`
// against it. kSignatureValid only when the key matches; kSignatureInvalid for a
// mismatch, a read error, a failed digest step or a missing context. Diagnostics go to standard
// output, not to the trace.
[[nodiscard]] int verifySignature(FILE* file, const uint8_t* signature);

}  // namespace slm
