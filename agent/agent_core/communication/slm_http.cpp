// The HTTP/1.0 client: handles, the header table with its process-wide defaults, the proxy, the
// request head and the parsing of the answer's status line and headers. The defaults, the proxy
// and the encoding name are written at start-up before any service runs and read unlocked.
#include "agent_core/communication/slm_http.h"

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agent_core/security_settings.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr const char* kMethodNames[] = {"GET", "POST", "TRACE", "PUT"};
constexpr int kMethodCount = 4;

// Names as they go on the wire. "Content-Enconding" is spelled so; servers expect that spelling.
constexpr const char* kHeaderNames[kHeaderCount] = {
    "Host",           "Connection", "Pragma",          "Cache-Control", "User-Agent",
    "Accept-Charset", "Server",     "Content-Length",  "Content-Type",  "Content-Enconding",
    "SCPVersion",     "Service",    "SubjectCustomer", "SubjectID",     "SubjectType"};

constexpr int kHeaderValueMax = kHeaderValueBytes - 1;
constexpr int kCustomNameMax = kCustomHeaderNameBytes - 1;
// Unknown response headers keep this much of their value, like their name.
constexpr int kCustomResponseValueMax = kCustomHeaderNameBytes - 1;
constexpr int kHttpPathMax = kHttpPathBytes - 1;
constexpr int kHttpVersionMax = kHttpVersionBytes - 1;
constexpr int kHttpHostMax = kHttpHostBytes - 1;
constexpr int kHttpStatusMax = kHttpStatusBytes - 1;
constexpr uint16_t kHttpDefaultPort = 80;
// Status-line and header tokens longer than this fail the exchange.
constexpr int kHeadTokenBytes = 128;

char header_defaults[kHeaderCount][kHeaderValueBytes] = {
    "",           "close", "no-cache", "no-cache", "SLMAgent", "UTF-8", "",        "",
    "text/plain", "",      "1.1.1",    "",         "",         "",      "SLMAgent"};

char proxy_host[kHttpHostBytes] = "";
uint16_t proxy_port = 0;
char content_encoding[kHeaderValueBytes] = "";

const TokenDesc crlfDelimiter = makeTokenDesc("\r\n", 2);
const TokenDesc blankDelimiter = makeTokenDesc(" ", 1);
const TokenDesc colonDelimiter = makeTokenDesc(":", 1);

bool isAsciiEncoding(const char* name) {
  return strcmp(name, kAsciiEncoding) == 0;
}

// A token area with one byte behind its capacity, so the token always reads as a string.
struct HeadToken {
  char text[kHeadTokenBytes + 1] = "";
  TokenBuffer buffer{text, 0, kHeadTokenBytes};
  HeadToken() = default;
  HeadToken(const HeadToken&) = delete;
  HeadToken& operator=(const HeadToken&) = delete;
  // One try: a head line must arrive with at most one further read of the socket, which servers
  // sending short lines meet.
  int next(BufferedStream* stream, const TokenDesc& delimA, const TokenDesc& delimB) {
    return tokenizeStream(stream, &delimA, &delimB, &buffer, kTokenConsume);
  }
};

bool writeText(BufferedStream* stream, const char* text) {
  int length = static_cast<int>(strlen(text));
  return writeBufferStr(stream, text, length, kWriteFlush) == length;
}

bool writeHeaderLine(BufferedStream* stream, const char* name, const char* value) {
  return writeText(stream, name) && writeText(stream, ":") && writeText(stream, value) &&
         writeText(stream, "\r\n");
}

bool writeRequestHead(HttpHandle* handle) {
  BufferedStream* head = handle->headStream;
  const char* method = handle->method < kMethodCount ? kMethodNames[handle->method] : "";
  if (!writeText(head, method) || !writeText(head, " ")) return false;
  if (handle->proxy == kProxyForward) {
    if (!writeText(head, "http://") || !writeText(head, handle->host)) return false;
    if (handle->port != kHttpDefaultPort) {
      char port[8];
      snprintf(port, sizeof port, ":%u", static_cast<unsigned>(handle->port));
      if (!writeText(head, port)) return false;
    }
  }
  if (!writeText(head, handle->path) || !writeText(head, " ") ||
      !writeText(head, handle->version) || !writeText(head, "\r\n")) {
    return false;
  }
  for (int id = 0; id < kHeaderCount; ++id) {
    // The Host line names the server without its port, also through a proxy. A value set on
    // header 0 is sent as a second Host line below.
    if (id == kHeaderHost && !writeHeaderLine(head, kHeaderNames[id], handle->host)) return false;
    const char* value = handle->headers[id];
    if (value[0] != '\0') {
      if (strcmp(value, kHeaderSuppressed) != 0 &&
          !writeHeaderLine(head, kHeaderNames[id], value)) {
        return false;
      }
    } else if (header_defaults[id][0] != '\0' &&
               !writeHeaderLine(head, kHeaderNames[id], header_defaults[id])) {
      return false;
    }
  }
  for (CustomHeader* custom : handle->custom) {
    if (custom != nullptr && !writeHeaderLine(head, custom->name, custom->value)) return false;
  }
  return writeText(head, "\r\n");
}

void freeCustomHeaders(HttpHandle* handle) {
  for (CustomHeader*& custom : handle->custom) {
    if (custom == nullptr) break;
    delete custom;
    custom = nullptr;
  }
}

int findHeaderId(const char* name) {
  for (int id = 0; id < kHeaderCount; ++id) {
    if (strcmp(kHeaderNames[id], name) == 0) return id;
  }
  return -1;
}

// Reads the header lines of a 2xx answer up to the blank line. False on any malformed line or
// read failure.
bool readResponseHeaders(HttpHandle* handle) {
  BufferedStream* head = handle->headStream;
  for (;;) {
    HeadToken name;
    int result = name.next(head, crlfDelimiter, colonDelimiter);
    if (result == kTokenFoundA && name.buffer.length == 0) return true;
    if (result != kTokenFoundB) return false;
    // The value keeps the blank that usually follows the colon.
    HeadToken value;
    if (value.next(head, crlfDelimiter, crlfDelimiter) < 1) return false;
    int id = findHeaderId(name.text);
    if (id >= 0) {
      copyBounded(handle->headers[id], kHeaderValueMax, value.text);
      continue;
    }
    for (CustomHeader*& custom : handle->custom) {
      if (custom != nullptr) continue;
      custom = new (std::nothrow) CustomHeader{};
      if (custom == nullptr) return false;
      copyBounded(custom->name, kCustomNameMax, name.text);
      copyBounded(custom->value, kCustomResponseValueMax, value.text);
      break;
    }
  }
}

// Refuses the handle's answer, with the ERROR line naming it by its service or else its path;
// `announced` is the Content-Length that was over the limit, or -1 when the bytes themselves were.
void refuseAnswer(HttpHandle* handle, int64_t announced) {
  handle->answerBytes = kAnswerRefused;
  char announcedText[48] = "";
  if (announced >= 0) {
    snprintf(announcedText, sizeof announcedText, " (%" PRId64 " announced)", announced);
  }
  const bool service = handle->answerService[0] != '\0';
  SLM_TRACE(0, "ERROR - Answer of %s%s over its limit of %" PRId64 " bytes%s",
            service ? "service " : "", service ? handle->answerService : handle->path,
            handle->answerLimitBytes, announcedText);
}

// Asks the proxy for a tunnel to the handle's server and reads its answer: a 2xx status line,
// header lines to the blank line, and nothing after it, since the server says nothing before the
// agent's TLS handshake. False after an ERROR line.
bool openProxyTunnel(HttpHandle* handle) {
  char target[kHttpHostBytes + 8];
  snprintf(target, sizeof target, "%s:%u", handle->host, static_cast<unsigned>(handle->port));
  BufferedStream* head = handle->headStream;
  if (!writeText(head, "CONNECT ") || !writeText(head, target) ||
      !writeText(head, " HTTP/1.0\r\n") ||
      !writeHeaderLine(head, kHeaderNames[kHeaderHost], target) || !writeText(head, "\r\n") ||
      flushBufferedStream(head) < 1) {
    SLM_TRACE(0, "ERROR - Proxy tunnel to %s not asked for: the proxy cannot be written to",
              target);
    return false;
  }
  HeadToken protocol;
  HeadToken status;
  HeadToken reason;
  bool answered = protocol.next(head, crlfDelimiter, blankDelimiter) == kTokenFoundB &&
                  strncmp(protocol.text, "HTTP/1.", 7) == 0;
  if (answered) {
    // The reason phrase may be left out, with the blank before it.
    int statusEnd = status.next(head, crlfDelimiter, blankDelimiter);
    answered = statusEnd == kTokenFoundA ||
               (statusEnd == kTokenFoundB && reason.next(head, crlfDelimiter, crlfDelimiter) >= 1);
  }
  if (!answered || status.text[0] != '2') {
    SLM_TRACE(0, "ERROR - Proxy tunnel to %s refused: %s%s%s", target,
              answered ? status.text : "no HTTP answer", reason.text[0] != '\0' ? " " : "",
              reason.text);
    return false;
  }
  for (;;) {
    HeadToken line;
    if (line.next(head, crlfDelimiter, crlfDelimiter) < 1) {
      SLM_TRACE(0, "ERROR - Proxy tunnel to %s refused: its answer does not end", target);
      return false;
    }
    if (line.buffer.length == 0) break;
  }
  if (head->cur != head->buf + head->stored) {
    SLM_TRACE(0, "ERROR - Proxy tunnel to %s refused: bytes before the TLS handshake", target);
    return false;
  }
  resetBufferedStream(head);
  return true;
}

}  // namespace

HttpHandle* newHttpHandle(int method, const char* path, const char* version, const char* host,
                          uint16_t port, int timeout, int flags) {
  auto* handle = new (std::nothrow) HttpHandle{};
  if (handle == nullptr) return nullptr;
  copyBounded(handle->status, kHttpStatusMax, "0");
  handle->method = static_cast<uint8_t>(method);
  copyBounded(handle->path, kHttpPathMax, path);
  copyBounded(handle->version, kHttpVersionMax, version);
  copyBounded(handle->host, kHttpHostMax, host);
  handle->port = port;
  handle->answerLimitBytes = kMaxServiceAnswerBytes;

  auto timeoutSeconds = static_cast<int16_t>(timeout);
  const bool tls = securitySettings().serverTls;
  if (proxy_port != 0 && (flags & kHttpNoProxy) == 0) {
    handle->proxy = tls ? kProxyTunnel : kProxyForward;
    handle->socketStream = newSocketStream(proxy_host, static_cast<int>(strlen(proxy_host)),
                                           proxy_port, timeoutSeconds);
    if (handle->socketStream == nullptr) {
      SLM_TRACE(0, "ERROR - Opening proxy socket %s:%d", proxy_host, proxy_port);
      delete handle;
      return nullptr;
    }
  } else {
    handle->proxy = 0;
    handle->socketStream =
        newSocketStream(handle->host, static_cast<int>(strlen(handle->host)), port, timeoutSeconds);
    if (handle->socketStream == nullptr) {
      SLM_TRACE(0, "ERROR - Opening server socket %s:%d", handle->host, port);
      delete handle;
      return nullptr;
    }
  }

  handle->headStream =
      initBufferStream(kStreamBufferCount, kStreamBufferUnit, handle->socketStream);
  if (handle->headStream == nullptr) {
    closeSocketStream(handle->socketStream);
    delete handle;
    return nullptr;
  }
  ConvertFn conversion = isAsciiEncoding(content_encoding) ? convertToAscii : nullptr;
  handle->encodingStream =
      newEncodingStream(conversion, 1.0F, conversion, 1.0F, handle, handle->headStream);
  if (handle->encodingStream != nullptr) {
    handle->bodyStream =
        initBufferStream(kStreamBufferCount, kStreamBufferUnit, handle->encodingStream);
  }
  if (handle->bodyStream == nullptr) {
    closeEncodingStream(handle->encodingStream);
    closeBufferedStream(handle->headStream);
    closeSocketStream(handle->socketStream);
    delete handle;
    return nullptr;
  }
  if (tls && ((handle->proxy == kProxyTunnel && !openProxyTunnel(handle)) ||
              startSocketTls(handle->socketStream, handle->host, handle->port) != 0)) {
    freeHttpHandle(handle);
    return nullptr;
  }
  return handle;
}

void freeHttpHandle(HttpHandle* handle) {
  if (handle == nullptr) return;
  closeBufferedStream(handle->bodyStream);
  closeEncodingStream(handle->encodingStream);
  closeBufferedStream(handle->headStream);
  closeSocketStream(handle->socketStream);
  freeCustomHeaders(handle);
  delete handle;
}

int setHttpProxy(const char* host, uint16_t port) {
  copyBounded(proxy_host, kHttpHostMax, host);
  proxy_port = port;
  return 1;
}

void setHttpContentEncoding(const char* name) {
  copyBounded(content_encoding, kHeaderValueMax, name);
}

int setDefaults(int id, const char* value) {
  if (id < 0 || id >= kHeaderCount) {
    SLM_TRACE(0, "ERROR - Header number %d not valid", id);
    return 0;
  }
  copyBounded(header_defaults[id], kHeaderValueMax, value);
  return 1;
}

int putHeader(HttpHandle* handle, int id, const char* value) {
  if (id < 0 || id >= kHeaderCount) {
    SLM_TRACE(0, "ERROR - Header number %d not valid", id);
    return 0;
  }
  if (value == nullptr) return 1;
  if (id == kHeaderContentEncoding) {
    if (strcmp(value, kHeaderSuppressed) == 0) {
      encodingStreamSet(handle->encodingStream, nullptr, 1.0F, nullptr, 1.0F);
      SLM_TRACE(2, "NET - No enconding set");
    } else if (isAsciiEncoding(value)) {
      encodingStreamSet(handle->encodingStream, convertToAscii, 1.0F, convertToAscii, 1.0F);
      SLM_TRACE(2, "NET - ASCII enconding set");
    } else if (value[0] != '\0') {
      SLM_TRACE(0, "ERROR - Encoding %s not valid", value);
      return 0;
    }
  }
  copyBounded(handle->headers[id], kHeaderValueMax, value);
  return 1;
}

int putCustomHearder(HttpHandle* handle, const CustomHeader* record) {
  if (record == nullptr) return 0;
  for (CustomHeader*& custom : handle->custom) {
    if (custom != nullptr) continue;
    custom = new (std::nothrow) CustomHeader{};
    if (custom == nullptr) return 0;
    copyBounded(custom->name, kCustomNameMax, record->name);
    copyBounded(custom->value, kHeaderValueMax, record->value);
    return 1;
  }
  return 0;
}

int setRequest(HttpHandle* handle) {
  if (!writeRequestHead(handle)) return 0;
  return flushBufferedStream(handle->headStream) < 1 ? 0 : 1;
}

int sendContent(HttpHandle* handle, const char* data, int length) {
  return writeBufferStr(handle->bodyStream, data, length, kWriteGrow) == length ? 1 : 0;
}

int getAnswer(HttpHandle* handle) {
  int sent = flushBufferedStream(handle->bodyStream);
  if (sent < 0) {
    SLM_TRACE(0, "ERROR - Sending HTTP request, value %d", sent);
    return 0;
  }

  BufferedStream* head = handle->headStream;
  HeadToken protocol;
  if (protocol.next(head, crlfDelimiter, blankDelimiter) != kTokenFoundB) return 0;
  if (strstr(protocol.text, "HTTP/1.") == nullptr) {
    SLM_TRACE(0, "ERROR - Http version %s not supported", protocol.text);
    return 0;
  }
  HeadToken status;
  if (status.next(head, crlfDelimiter, blankDelimiter) != kTokenFoundB) return 0;
  copyBounded(handle->status, kHttpStatusMax, status.text);
  HeadToken reason;
  if (reason.next(head, crlfDelimiter, crlfDelimiter) < 1) return 0;

  switch (handle->status[0]) {
    case '2':
      break;
    case '1':
    case '3':
    case '4':
    case '5':
      SLM_TRACE(0, "ERROR - Http response %s not managed", handle->status);
      return 0;
    default:
      return 0;
  }

  copyBounded(handle->answerService, kHeaderValueMax, handle->headers[kHeaderService]);
  memset(handle->headers, 0, sizeof handle->headers);
  freeCustomHeaders(handle);
  if (!readResponseHeaders(handle)) return 0;

  // Read in 64 bits: a length past the int range must not wrap below the limit.
  long long bodyLength = strtoll(handle->headers[kHeaderContentLength], nullptr, 10);
  if (bodyLength < 0) return 0;
  if (bodyLength > handle->answerLimitBytes) {
    refuseAnswer(handle, bodyLength);
    return 0;
  }
  resetBufferedStream(handle->bodyStream);
  // The service layer tokenizes the whole response in memory: the buffer may grow to the
  // announced length, but only as the bytes come, so a length that lies costs nothing. A length
  // within the buffer changes nothing.
  handle->bodyStream->growLimit = static_cast<int>(bodyLength < INT_MAX ? bodyLength : INT_MAX);
  return 1;
}

void setAnswerLimit(HttpHandle* handle, int64_t maxBytes) {
  handle->answerLimitBytes = maxBytes;
}

int64_t answerRoom(const HttpHandle* handle) {
  if (handle->answerBytes == kAnswerRefused) return -1;
  return handle->answerLimitBytes - handle->answerBytes;
}

bool countAnswerBytes(HttpHandle* handle, int count) {
  if (handle->answerBytes == kAnswerRefused) return false;
  handle->answerBytes += count;
  if (handle->answerBytes <= handle->answerLimitBytes) return true;
  refuseAnswer(handle, -1);
  return false;
}

int getHeaderById(const HttpHandle* handle, int id, char* destination) {
  if (id < 0 || id > kHeaderCount) return 0;
  // Id 15 names no header: its value is empty.
  copyBounded(destination, kHeaderValueMax, id == kHeaderCount ? "" : handle->headers[id]);
  return 1;
}

int getHeaderByName(const HttpHandle* handle, CustomHeader* record) {
  for (const CustomHeader* custom : handle->custom) {
    if (custom != nullptr && strcmp(custom->name, record->name) == 0) {
      copyBounded(record->value, kHeaderValueMax, custom->value);
      return 1;
    }
  }
  int id = findHeaderId(record->name);
  if (id < 0) return 0;
  copyBounded(record->value, kHeaderValueMax, handle->headers[id]);
  return 1;
}

int getContentToken(HttpHandle* handle, const TokenDesc* delimA, const TokenDesc* delimB,
                    TokenBuffer* tokenBuffer, int mode) {
  int result = tokenizeStream(handle->bodyStream, delimA, delimB, tokenBuffer, mode);
  if (tokenBuffer->length > 0 && tokenBuffer->length < tokenBuffer->capacity) {
    tokenBuffer->area[tokenBuffer->length] = '\0';
  } else if (tokenBuffer->capacity > 0) {
    tokenBuffer->area[tokenBuffer->capacity - 1] = '\0';
  }
  return result;
}

int getContentChunk(HttpHandle* handle, char* area, int size) {
  memset(area, 0, static_cast<size_t>(size));
  int result = readBufferStr(handle->bodyStream, area, size);
  if (result > 0) return result;
  return result == kStreamEndOfData ? kContentEnd : 0;
}

}  // namespace slm
