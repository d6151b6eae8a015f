// Buffered streams, the tokenizer and the three lower streams (socket, body encoder,
// kernel-configuration file). Objects are plain structures; buffers are malloc'ed so they can be
// grown in place. The socket stream carries TLS records, once started, through a BIO of its own
// that sends and receives without blocking and without SIGPIPE and counts the exchange's bytes.
#include "agent_core/communication/slm_stream.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agent_core/communication/slm_http.h"
#include "agent_core/communication/slm_tls.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

// A position in the unread bytes where one of the delimiters begins.
struct DelimiterMatch {
  int offset;
  int result;  // kTokenFoundB or kTokenFoundA, 0 when nothing matched
};

bool matchesAt(const char* at, const char* end, const TokenDesc* delim) {
  if (delim->length <= 0 || end - at < delim->length) return false;
  return memcmp(at, delim->text, static_cast<size_t>(delim->length)) == 0;
}

// Scans the unread bytes for the first position where either delimiter begins. At one position
// the shorter delimiter completes first and wins; B wins when both complete together.
DelimiterMatch findDelimiter(const BufferedStream* stream, const TokenDesc* delimA,
                             const TokenDesc* delimB) {
  const char* end = stream->buf + stream->stored;
  int shortest = delimA->length < delimB->length ? delimA->length : delimB->length;
  // Only a position holding a delimiter's first byte is compared further: a catalog answer is
  // tokenized a few bytes at a time, a million lines in a row.
  const bool useA = delimA->length > 0;
  const bool useB = delimB->length > 0;
  const char firstA = useA ? delimA->text[0] : '\0';
  const char firstB = useB ? delimB->text[0] : '\0';
  for (const char* at = stream->cur; at <= end - shortest; ++at) {
    const bool maybeA = useA && *at == firstA;
    const bool maybeB = useB && *at == firstB;
    if (!maybeA && !maybeB) continue;
    bool foundB = maybeB && matchesAt(at, end, delimB);
    bool foundA = maybeA && matchesAt(at, end, delimA);
    int offset = static_cast<int>(at - stream->cur);
    if (foundB && (!foundA || delimB->length <= delimA->length)) {
      return {offset, kTokenFoundB};
    }
    if (foundA) return {offset, kTokenFoundA};
  }
  return {0, 0};
}

// Reallocates the buffer to `size` bytes (plus the terminator byte when `terminated`), keeping the
// position's distance from the start. False when the memory cannot be had.
bool resizeBuffer(BufferedStream* stream, int size, bool terminated) {
  std::ptrdiff_t position = stream->cur - stream->buf;
  size_t bytes = static_cast<size_t>(size) + (terminated ? 1 : 0);
  char* grown = static_cast<char*>(realloc(stream->buf, bytes));
  if (grown == nullptr) return false;
  stream->buf = grown;
  stream->cur = grown + position;
  stream->capacity = size;
  if (terminated) grown[size] = '\0';
  return true;
}

// Reads into the free room behind the stored bytes. While a read fills the room and the buffer
// is below its grow limit, the buffer is doubled (at most to the limit) and the reading goes on.
// The bytes read, or the first read's result below 1.
int readIntoRoom(BufferedStream* stream) {
  int total = 0;
  for (;;) {
    int room = stream->capacity - stream->stored;
    int result = stream->lower->read(stream->lower->context, stream->buf + stream->stored, room, 0);
    if (result < 1) return total > 0 ? total : result;
    stream->stored += result;
    total += result;
    if (result < room || stream->capacity >= stream->growLimit) return total;
    int64_t doubled = int64_t{stream->capacity} * 2;
    int grown = static_cast<int>(std::min<int64_t>(doubled, stream->growLimit));
    // Without the memory the bytes read so far are still delivered; the rest waits for a refill.
    if (!resizeBuffer(stream, grown, true)) return total;
  }
}

// "HOST:PORT" of the server a TLS stream talks to, for its trace lines.
constexpr size_t kTlsPeerChars = 280;

struct SocketContext {
  char* host;
  uint16_t port;
  int timeoutSeconds;
  int socket;
  AgentTime windowStart;   // when the exchange's current window began, on the agent clock
  int64_t windowBytes;     // bytes sent and received within it (TLS: the records' bytes)
  bool cut;                // the exchange moved too little: nothing more is sent or received
  SSL* tls = nullptr;      // once TLS is started: every byte goes through it
  bool tlsBroken = false;  // a fatal TLS error: no close_notify is sent
  char tlsPeer[kTlsPeerChars] = "";
};

// Whether the exchange may go on. When a window has run out, it must have moved
// kExchangeMinimumBytes, and a new window begins; otherwise the exchange is cut for good, after
// its ERROR line. A clock set back starts the window afresh.
bool exchangeMoving(SocketContext* socket) {
  if (socket->cut) return false;
  AgentTime now = getNowWithOffset(0);
  int32_t elapsed =
      static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(socket->windowStart));
  if (elapsed < 0) socket->windowStart = now;
  if (elapsed < kExchangeWindowSeconds) return true;
  if (socket->windowBytes >= kExchangeMinimumBytes) {
    socket->windowStart = now;
    socket->windowBytes = 0;
    return true;
  }
  socket->cut = true;
  SLM_TRACE(0, "ERROR - Exchange with %s:%u cut: fewer than %d bytes in %d seconds", socket->host,
            static_cast<unsigned>(socket->port), kExchangeMinimumBytes, kExchangeWindowSeconds);
  return false;
}

// Milliseconds left in the exchange's current window (exchangeMoving keeps it under a window).
int64_t windowLeftMs(const SocketContext* socket) {
  int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(getNowWithOffset(0)) -
                                         static_cast<uint32_t>(socket->windowStart));
  return int64_t{kExchangeWindowSeconds - std::clamp(elapsed, 0, kExchangeWindowSeconds)} * 1000;
}

using WaitClock = std::chrono::steady_clock;

WaitClock::time_point waitDeadline(const SocketContext* socket) {
  return WaitClock::now() + std::chrono::seconds(socket->timeoutSeconds);
}

// Waits until the socket is ready for `events`, at most until `deadline`, and looks at the
// exchange's progress whenever its window runs out meanwhile. 1 when ready; kStreamReadTimeout
// when the deadline passes or the exchange is cut; kStreamIoError when the wait itself fails.
// poll, not select: a daemon with many files open gets descriptors past select's fixed set.
int waitSocket(SocketContext* socket, short events, WaitClock::time_point deadline) {
  for (;;) {
    if (!exchangeMoving(socket)) return kStreamReadTimeout;
    int64_t timeLeftMs = std::max<int64_t>(
        0,
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - WaitClock::now()).count());
    int64_t windowMs = windowLeftMs(socket);
    pollfd polled{socket->socket, events, 0};
    int ready = poll(&polled, 1, static_cast<int>(std::min(timeLeftMs, windowMs)));
    if (ready > 0) return 1;
    if (ready < 0 && errno != EINTR) return kStreamIoError;
    if (ready == 0 && timeLeftMs <= windowMs) return kStreamReadTimeout;
  }
}

// The BIO under a stream's TLS: the socket, never blocking, never raising SIGPIPE, each byte
// counted for the exchange's window. Waiting is the stream's business (waitSocket).
int socketBioWrite(BIO* bio, const char* data, int length) {
  auto* socket = static_cast<SocketContext*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  ssize_t sent;
  do {
    sent = send(socket->socket, data, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_write(bio);
  if (sent > 0) socket->windowBytes += sent;
  return static_cast<int>(sent);
}

int socketBioRead(BIO* bio, char* data, int length) {
  auto* socket = static_cast<SocketContext*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  ssize_t received;
  do {
    received = recv(socket->socket, data, static_cast<size_t>(length), MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_read(bio);
  // The library tells a peer that closed without close_notify by this flag.
  if (received == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  if (received > 0) socket->windowBytes += received;
  return static_cast<int>(received);
}

long socketBioControl(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  if (command == BIO_CTRL_FLUSH) return 1;  // nothing is held back
  if (command == BIO_CTRL_EOF) return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
  return 0;
}

// The method, made once and kept for the process.
const BIO_METHOD* socketBioMethod() {
  static BIO_METHOD* method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "agent socket");
    if (made != nullptr) {
      BIO_meth_set_write(made, socketBioWrite);
      BIO_meth_set_read(made, socketBioRead);
      BIO_meth_set_ctrl(made, socketBioControl);
    }
    return made;
  }();
  return method;
}

// What a TLS operation that returned `result` waits for: POLLIN, POLLOUT, or 0 when it failed (a
// fatal error, or close_notify for SSL_ERROR_ZERO_RETURN in `*sslError`).
short tlsWaitEvents(SocketContext* socket, int result, int* sslError) {
  *sslError = SSL_get_error(socket->tls, result);
  if (*sslError == SSL_ERROR_WANT_READ) return POLLIN;
  if (*sslError == SSL_ERROR_WANT_WRITE) return POLLOUT;
  if (*sslError == SSL_ERROR_SSL || *sslError == SSL_ERROR_SYSCALL) socket->tlsBroken = true;
  return 0;
}

// The handshake, then the pins. 0, or kStreamIoError after the ERROR line that says why.
int runTlsHandshake(SocketContext* socket, const TlsPins& pins) {
  const WaitClock::time_point deadline = waitDeadline(socket);
  char reason[256];
  for (;;) {
    ERR_clear_error();
    errno = 0;
    int result = SSL_connect(socket->tls);
    if (result == 1) break;
    int sslError = 0;
    short events = tlsWaitEvents(socket, result, &sslError);
    int ready = events == 0 ? 0 : waitSocket(socket, events, deadline);
    if (ready == 1) continue;
    if (ready == kStreamReadTimeout) {
      snprintf(reason, sizeof reason, "no answer within %d seconds", socket->timeoutSeconds);
    } else {
      tlsFailureReason(socket->tls, sslError, reason, sizeof reason);
    }
    SLM_TRACE(0, "ERROR - TLS handshake with %s failed: %s", socket->tlsPeer, reason);
    return kStreamIoError;
  }
  if (!peerMatchesPins(socket->tls, pins)) {
    SLM_TRACE(0, "ERROR - TLS with %s refused: public key pin does not match", socket->tlsPeer);
    return kStreamIoError;
  }
  SLM_TRACE(3, "NET - %s with %s, %s", SSL_get_version(socket->tls), socket->tlsPeer,
            SSL_get_cipher_name(socket->tls));
  return 0;
}

// slm_sread over TLS. Bytes the library holds already decrypted are delivered before any wait:
// the socket shows nothing for them.
int readTls(SocketContext* socket, char* data, int len) {
  if (!exchangeMoving(socket)) return kStreamReadTimeout;
  const WaitClock::time_point deadline = waitDeadline(socket);
  for (;;) {
    ERR_clear_error();
    errno = 0;
    size_t received = 0;
    int result = SSL_read_ex(socket->tls, data, static_cast<size_t>(len), &received);
    if (result == 1) return static_cast<int>(received);
    int sslError = 0;
    short events = tlsWaitEvents(socket, result, &sslError);
    if (sslError == SSL_ERROR_ZERO_RETURN) return kStreamEndOfData;
    if (events == 0) {
      // A connection that ends without close_notify may have been cut short by anybody on the
      // way: it is an error, not the end of the answer.
      char reason[256];
      tlsFailureReason(socket->tls, sslError, reason, sizeof reason);
      SLM_TRACE(0, "ERROR - TLS with %s broken: %s", socket->tlsPeer, reason);
      return kStreamIoError;
    }
    int ready = waitSocket(socket, events, deadline);
    if (ready != 1) return ready;
  }
}

// slm_swrite over TLS: `len`, or kStreamIoError.
int writeTls(SocketContext* socket, const char* data, int len) {
  for (;;) {
    ERR_clear_error();
    size_t written = 0;
    // Without partial writes the library takes all `len` bytes or none; a retry passes the same.
    int result = SSL_write_ex(socket->tls, data, static_cast<size_t>(len), &written);
    if (result == 1) return len;
    int sslError = 0;
    short events = tlsWaitEvents(socket, result, &sslError);
    if (events == 0 || waitSocket(socket, events, waitDeadline(socket)) != 1) return kStreamIoError;
  }
}

struct EncodingContext {
  HttpHandle* handle;
  BufferedStream* socketSide;
  float writeFactor;
  float readFactor;
  ConvertFn encode;
  ConvertFn decode;
};

struct KerConfContext {
  char* path;
  FILE* file;
};

// A stream whose context owns a copy of the first `length` bytes of `name` (a host or a path);
// null when memory runs out.
template <typename Context>
SlmStream* newNamedStream(const char* name, int length, Context initial, char* Context::*nameField,
                          SlmStream operations) {
  if (name == nullptr || length < 0) return nullptr;
  auto* stream = new (std::nothrow) SlmStream{operations};
  auto* context = new (std::nothrow) Context{initial};
  char* copy = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
  if (stream == nullptr || context == nullptr || copy == nullptr) {
    delete stream;
    delete context;
    free(copy);
    return nullptr;
  }
  memcpy(copy, name, static_cast<size_t>(length));
  copy[length] = '\0';
  context->*nameField = copy;
  stream->context = context;
  return stream;
}

template <typename Context>
void closeNamedStream(SlmStream* stream, char* Context::*nameField) {
  if (stream == nullptr) return;
  auto* context = static_cast<Context*>(stream->context);
  if (context != nullptr) free(context->*nameField);
  delete context;
  delete stream;
}

// Resolves `host` to an IPv4 address in network order. False when there is none.
bool resolveHost(const char* host, in_addr_t* address) {
  // Only texts starting with 1 to 9 are dotted addresses here: "0.0.0.0" or "010.1.1.1" go to the
  // resolver, which is how the agent has always treated them.
  if (host[0] >= '1' && host[0] <= '9') {
    in_addr_t dotted = inet_addr(host);
    if (dotted != INADDR_NONE) {
      *address = dotted;
      return true;
    }
  }
  // The reentrant form: several agent threads may open connections at once.
  hostent entry;
  hostent* found = nullptr;
  char scratch[8192];
  int error = 0;
  if (gethostbyname_r(host, &entry, scratch, sizeof scratch, &found, &error) != 0 ||
      found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
    return false;
  }
  memcpy(address, found->h_addr_list[0], sizeof *address);
  return true;
}

}  // namespace

BufferedStream* initBufferStream(int count, int unit, SlmStream* lower) {
  if (count <= 0 || unit <= 0 || lower == nullptr) return nullptr;
  auto* stream = new (std::nothrow) BufferedStream{};
  if (stream == nullptr) return nullptr;
  stream->unit = unit;
  stream->capacity = count * unit;
  stream->buf = static_cast<char*>(malloc(static_cast<size_t>(stream->capacity) + 1));
  if (stream->buf == nullptr) {
    delete stream;
    return nullptr;
  }
  stream->buf[stream->capacity] = '\0';
  resetBufferedStream(stream);
  stream->lower = lower;
  if (lower->open(lower->context) != 0) {
    free(stream->buf);
    delete stream;
    return nullptr;
  }
  return stream;
}

void closeBufferedStream(BufferedStream* stream) {
  if (stream == nullptr) return;
  free(stream->buf);
  stream->lower->close(stream->lower->context);
  delete stream;
}

int resetBufferedStream(BufferedStream* stream) {
  memset(stream->buf, 0, static_cast<size_t>(stream->capacity));
  stream->stored = 0;
  stream->cur = stream->buf;
  return 0;
}

int getStoredBytes(const BufferedStream* stream) {
  return stream->stored;
}

int adjustBufferStream(BufferedStream* stream, int size) {
  if (size < 0) return kStreamIoError;
  if (size <= stream->capacity) return 0;
  return resizeBuffer(stream, size, false) ? 0 : kStreamIoError;
}

int refillBufferedStream(BufferedStream* stream, int mode) {
  if (mode == kRefillFresh) {
    resetBufferedStream(stream);
  } else if (mode == kRefillCompact) {
    // Nothing consumed: compacting cannot make room, so a token that did not fit in what was read
    // before is not read on here.
    if (stream->cur == stream->buf && stream->stored != 0) return kStreamNoRoom;
    stream->stored -= static_cast<int>(stream->cur - stream->buf);
    memmove(stream->buf, stream->cur, static_cast<size_t>(stream->stored));
    stream->cur = stream->buf;
  } else {
    return 0;
  }
  return readIntoRoom(stream);
}

int flushBufferedStream(BufferedStream* stream) {
  int result = stream->lower->write(stream->lower->context, stream->buf, stream->stored, 0);
  if (result < 1) return result;
  resetBufferedStream(stream);
  return result;
}

int writeBufferStr(BufferedStream* stream, const char* data, int len, int grow) {
  if (len <= stream->capacity - stream->stored) {
    memcpy(stream->cur, data, static_cast<size_t>(len));
    stream->cur += len;
    stream->stored += len;
    return len;
  }
  int taken = 0;
  while (taken < len) {
    // Room is made only when another byte has to go in, so a flush never sends an empty buffer.
    if (stream->stored == stream->capacity) {
      if (grow == kWriteGrow) {
        int oldCapacity = stream->capacity;
        if (!resizeBuffer(stream, 2 * oldCapacity, true)) return taken > 0 ? taken : kStreamNoRoom;
        memset(stream->buf + oldCapacity, 0, static_cast<size_t>(oldCapacity));
        stream->cur = stream->buf + oldCapacity;
      } else {
        int flushed = flushBufferedStream(stream);
        if (flushed < 1) return taken > 0 ? taken : flushed;
      }
    }
    *stream->cur++ = data[taken++];
    ++stream->stored;
  }
  return taken;
}

int readBufferStr(BufferedStream* stream, char* data, int len) {
  int unread = stream->stored - static_cast<int>(stream->cur - stream->buf);
  if (len <= unread) {
    memcpy(data, stream->cur, static_cast<size_t>(len));
    stream->cur += len;
    return len;
  }
  int delivered = 0;
  while (delivered < len) {
    if (unread == 0) {
      int refilled = refillBufferedStream(stream, kRefillFresh);
      if (refilled < 1) return delivered > 0 ? delivered : refilled;
      unread = stream->stored;
    }
    int piece = len - delivered < unread ? len - delivered : unread;
    memcpy(data + delivered, stream->cur, static_cast<size_t>(piece));
    stream->cur += piece;
    delivered += piece;
    unread -= piece;
  }
  return delivered;
}

int tokenizeStream(BufferedStream* stream, const TokenDesc* delimA, const TokenDesc* delimB,
                   TokenBuffer* out, int mode) {
  if (out->capacity > 0) out->area[0] = '\0';
  for (int pass = 0;; ++pass) {
    DelimiterMatch match = findDelimiter(stream, delimA, delimB);
    if (match.result != 0) {
      if (match.offset > out->capacity) return kStreamNoRoom;
      memcpy(out->area, stream->cur, static_cast<size_t>(match.offset));
      if (match.offset < out->capacity) out->area[match.offset] = '\0';
      out->length = match.offset;
      stream->cur += match.offset;
      if (mode == kTokenConsume) {
        stream->cur += match.result == kTokenFoundB ? delimB->length : delimA->length;
      } else if (mode == kTokenPeek) {
        stream->cur -= match.offset;
      }
      return match.result;
    }
    // A token and its delimiter must fit in what is buffered after one compaction.
    if (pass == 1) return kStreamNoDelimiter;
    int refilled = refillBufferedStream(stream, kRefillCompact);
    if (refilled < 1) return refilled;
  }
}

int convertToAscii(const char* source, char* destination, int length) {
  int copied = 0;
  while (copied < length && source[copied] != '\0') {
    auto byte = static_cast<unsigned char>(source[copied]);
    destination[copied] = (byte & 0x80) != 0 ? '?' : source[copied];
    ++copied;
  }
  return copied;
}

// Socket stream.

SlmStream* newSocketStream(const char* host, int hostLength, uint16_t port, int16_t timeout) {
  return newNamedStream(host, hostLength, SocketContext{nullptr, port, timeout, -1, 0, 0, false},
                        &SocketContext::host,
                        SlmStream{nullptr, slm_sopen, slm_sread, slm_swrite, slm_sclose});
}

void closeSocketStream(SlmStream* stream) {
  closeNamedStream(stream, &SocketContext::host);
}

int slm_sopen(void* context) {
  auto* socketContext = static_cast<SocketContext*>(context);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(socketContext->port);
  if (!resolveHost(socketContext->host, &address.sin_addr.s_addr)) return kStreamIoError;
  // Close-on-exec: an installer or module loader the agent starts must not hold its connections.
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kStreamIoError;
  socketContext->socket = fd;
  int connected;
  do {
    connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (connected != 0 && errno == EINTR);
  if (connected != 0) {
    close(fd);
    socketContext->socket = -1;
    return kStreamIoError;
  }
  socketContext->windowStart = getNowWithOffset(0);
  socketContext->windowBytes = 0;
  socketContext->cut = false;
  return 0;
}

int slm_sread(void* context, char* data, int len, int /*flags*/) {
  auto* socketContext = static_cast<SocketContext*>(context);
  int fd = socketContext->socket;
  if (fd < 0) return kStreamIoError;
  if (socketContext->tls != nullptr) return readTls(socketContext, data, len);
  int ready = waitSocket(socketContext, POLLIN, waitDeadline(socketContext));
  if (ready != 1) return ready;
  ssize_t received;
  do {
    received = recv(fd, data, static_cast<size_t>(len), 0);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return kStreamIoError;
  if (received == 0) return kStreamEndOfData;
  socketContext->windowBytes += received;
  return static_cast<int>(received);
}

int slm_swrite(void* context, const char* data, int len, int /*flags*/) {
  auto* socketContext = static_cast<SocketContext*>(context);
  if (socketContext->socket < 0 || len < 1 || socketContext->cut) return kStreamIoError;
  if (socketContext->tls != nullptr) return writeTls(socketContext, data, len);
  int sent = 0;
  while (sent < len) {
    // Never blocking in send: a peer that stops reading is waited for like one that stops
    // writing. No SIGPIPE either: a peer that went away gives an error, not the daemon's end.
    ssize_t taken = send(socketContext->socket, data + sent, static_cast<size_t>(len - sent),
                         MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken > 0) {
      sent += static_cast<int>(taken);
      socketContext->windowBytes += taken;
    } else if (taken < 0 && errno == EINTR) {
      continue;
    } else if (taken < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
               waitSocket(socketContext, POLLOUT, waitDeadline(socketContext)) == 1) {
      continue;
    } else {
      return kStreamIoError;
    }
  }
  return sent;
}

int startSocketTls(SlmStream* stream, const char* serverHost, uint16_t serverPort) {
  auto* socketContext = static_cast<SocketContext*>(stream->context);
  if (socketContext->socket < 0 || socketContext->tls != nullptr) return kStreamIoError;
  snprintf(socketContext->tlsPeer, sizeof socketContext->tlsPeer, "%s:%u", serverHost,
           static_cast<unsigned>(serverPort));
  TlsPins pins;
  SSL_CTX* tlsContext = acquireTlsContext(&pins);
  SSL* tls = tlsContext == nullptr ? nullptr : SSL_new(tlsContext);
  SSL_CTX_free(tlsContext);  // a connection holds its own reference
  const BIO_METHOD* method = socketBioMethod();
  BIO* bio = tls == nullptr || method == nullptr ? nullptr : BIO_new(method);
  bool started = false;
  if (tlsContext != nullptr && (bio == nullptr || !setTlsServerName(tls, serverHost))) {
    SLM_TRACE(0, "ERROR - TLS with %s not started: %s", socketContext->tlsPeer,
              bio == nullptr ? "no memory" : "the server name is not usable");
    BIO_free(bio);
  } else if (bio != nullptr) {
    BIO_set_data(bio, socketContext);
    BIO_set_init(bio, 1);
    SSL_set_bio(tls, bio, bio);
    socketContext->tls = tls;
    socketContext->tlsBroken = false;
    started = runTlsHandshake(socketContext, pins) == 0;
  }
  if (started) return 0;
  // Nothing more goes over this connection, and never in the clear.
  SSL_free(tls);
  socketContext->tls = nullptr;
  close(socketContext->socket);
  socketContext->socket = -1;
  return kStreamIoError;
}

int slm_sclose(void* context) {
  auto* socketContext = static_cast<SocketContext*>(context);
  if (socketContext->tls != nullptr) {
    // close_notify, sent once and not waited for: the answer is read or given up by now.
    if (!socketContext->tlsBroken && !socketContext->cut) {
      ERR_clear_error();
      (void)SSL_shutdown(socketContext->tls);
    }
    SSL_free(socketContext->tls);
    socketContext->tls = nullptr;
  }
  if (socketContext->socket >= 0) close(socketContext->socket);
  socketContext->socket = -1;
  return 0;
}

// Encoding stream.

SlmStream* newEncodingStream(ConvertFn encodeFn, float writeFactor, ConvertFn decodeFn,
                             float readFactor, HttpHandle* httpHandle,
                             BufferedStream* bufferedStream) {
  auto* stream = new (std::nothrow) SlmStream{};
  auto* context = new (std::nothrow) EncodingContext{};
  if (stream == nullptr || context == nullptr) {
    delete stream;
    delete context;
    return nullptr;
  }
  *context =
      EncodingContext{httpHandle, bufferedStream, writeFactor, readFactor, encodeFn, decodeFn};
  *stream = SlmStream{context, encoder_open, decode_read, encode_write, encoder_close};
  return stream;
}

void encodingStreamSet(SlmStream* stream, ConvertFn encodeFn, float writeFactor, ConvertFn decodeFn,
                       float readFactor) {
  auto* context = static_cast<EncodingContext*>(stream->context);
  context->encode = encodeFn;
  context->writeFactor = writeFactor;
  context->decode = decodeFn;
  context->readFactor = readFactor;
}

void closeEncodingStream(SlmStream* stream) {
  if (stream == nullptr) return;
  delete static_cast<EncodingContext*>(stream->context);
  delete stream;
}

int encoder_open(void* /*context*/) {
  return 0;
}

int decode_read(void* context, char* data, int len, int /*flags*/) {
  auto* encoding = static_cast<EncodingContext*>(context);
  HttpHandle* handle = encoding->handle;
  const bool converted = encoding->decode != nullptr && len != 0;
  int wanted = len;
  if (converted) {
    // The scaled count is kept within int so that it cannot wrap into a huge allocation.
    double scaled = static_cast<double>(len) * encoding->readFactor;
    wanted = scaled < INT_MAX ? static_cast<int>(scaled) : INT_MAX;
  }
  if (handle != nullptr && wanted > 0) {
    // One byte more than the answer may still take is asked for: getting it shows the answer
    // over its limit, without reading further into it.
    int64_t room = answerRoom(handle);
    if (room < 0) return kStreamIoError;
    if (room < wanted) wanted = static_cast<int>(room + 1);
  }
  char* raw = data;
  if (converted) {
    raw = static_cast<char*>(malloc(static_cast<size_t>(wanted) + 1));
    if (raw == nullptr) return kStreamIoError;
  }
  int result = readBufferStr(encoding->socketSide, raw, wanted);
  if (result > 0 && handle != nullptr && !countAnswerBytes(handle, result)) {
    result = kStreamIoError;
  } else if (result > 0 && converted) {
    raw[result] = '\0';
    result = encoding->decode(raw, data, len);
  }
  if (converted) free(raw);
  return result;
}

int encode_write(void* context, const char* data, int len, int /*flags*/) {
  auto* encoding = static_cast<EncodingContext*>(context);
  if (len == 0) return setRequest(encoding->handle) == 1 ? 0 : kStreamIoError;
  const char* body = data;
  int bodyLength = len;
  char* converted = nullptr;
  if (encoding->encode != nullptr) {
    int room = static_cast<int>(static_cast<float>(len) * encoding->writeFactor);
    converted = static_cast<char*>(malloc(room > 0 ? static_cast<size_t>(room) : 1));
    if (converted == nullptr) return kStreamIoError;
    bodyLength = encoding->encode(data, converted, room);
    if (bodyLength < 0) {
      free(converted);
      return kStreamIoError;
    }
    body = converted;
  }
  char lengthText[16];
  snprintf(lengthText, sizeof lengthText, "%d", bodyLength);
  putHeader(encoding->handle, kHeaderContentLength, lengthText);
  if (setRequest(encoding->handle) != 1) {
    free(converted);
    return kStreamIoError;
  }
  int written = writeBufferStr(encoding->socketSide, body, bodyLength, kWriteFlush);
  free(converted);
  int flushed = flushBufferedStream(encoding->socketSide);
  if (written < 0 || flushed < 0) return kStreamIoError;
  return written + flushed;
}

int encoder_close(void* /*context*/) {
  return 0;
}

// Kernel-configuration-file stream.

SlmStream* newKerConfFileStream(const char* path, int pathLength) {
  return newNamedStream(path, pathLength, KerConfContext{nullptr, nullptr}, &KerConfContext::path,
                        SlmStream{nullptr, slm_kcfopen, slm_kcfread, slm_kcfwrite, slm_kcfclose});
}

void closeKerConfFileStream(SlmStream* stream) {
  closeNamedStream(stream, &KerConfContext::path);
}

int slm_kcfopen(void* context) {
  auto* file = static_cast<KerConfContext*>(context);
  file->file = fopen(file->path, "re");
  return file->file == nullptr ? kStreamIoError : 0;
}

int slm_kcfread(void* context, char* data, int len, int /*flags*/) {
  constexpr int kLineBytes = 1000;  // at most 999 characters and the terminator
  // The C white space, fixed here so that the process locale cannot widen it.
  constexpr const char* kWhiteSpace = " \t\r\n\v\f";
  auto* file = static_cast<KerConfContext*>(context);
  char line[kLineBytes];
  if (fgets(line, kLineBytes, file->file) == nullptr) return kStreamEndOfData;
  int kept = 0;
  for (int i = 0; line[i] != '\0'; ++i) {
    if (strchr(kWhiteSpace, line[i]) == nullptr) line[kept++] = line[i];
  }
  line[kept] = '\0';
  if (kept + 1 > len) return kStreamNoRoom;
  memcpy(data, line, static_cast<size_t>(kept) + 1);
  return kept + 1;
}

int slm_kcfwrite(void* /*context*/, const char* /*data*/, int /*len*/, int /*flags*/) {
  return kStreamIoError;
}

int slm_kcfclose(void* context) {
  auto* file = static_cast<KerConfContext*>(context);
  if (file->file != nullptr) fclose(file->file);
  file->file = nullptr;
  return 0;
}

}  // namespace slm
