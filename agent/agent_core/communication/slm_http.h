// The agent's HTTP/1.0 client: one handle per request and one TCP connection per handle, directly
// or through a forwarding proxy. The request body is gathered in memory and sent behind its head
// when the answer is asked for; the response body is read through the handle's body stream, up to
// the handle's answer limit. A handle is used by one thread; the proxy and the header defaults are
// set at start-up, unlocked.
#pragma once

#include <cstdint>

#include "agent_core/communication/slm_stream.h"

namespace slm {

// Methods, as stored in a handle.
constexpr int kHttpGet = 0;
constexpr int kHttpPost = 1;
constexpr int kHttpTrace = 2;
constexpr int kHttpPut = 3;

// Header ids.
constexpr int kHeaderHost = 0;
constexpr int kHeaderConnection = 1;
constexpr int kHeaderPragma = 2;
constexpr int kHeaderCacheControl = 3;
constexpr int kHeaderUserAgent = 4;
constexpr int kHeaderAcceptCharset = 5;
constexpr int kHeaderServer = 6;
constexpr int kHeaderContentLength = 7;
constexpr int kHeaderContentType = 8;
constexpr int kHeaderContentEncoding = 9;
constexpr int kHeaderScpVersion = 10;
constexpr int kHeaderService = 11;
constexpr int kHeaderSubjectCustomer = 12;
constexpr int kHeaderSubjectId = 13;
constexpr int kHeaderSubjectType = 14;
constexpr int kHeaderCount = 15;

constexpr int kHeaderValueBytes = 128;
constexpr int kHttpStatusBytes = 4;
constexpr int kHttpPathBytes = 1024;
constexpr int kHttpVersionBytes = 11;
constexpr int kHttpHostBytes = 512;
constexpr int kCustomHeaderSlots = 5;
constexpr int kCustomHeaderNameBytes = 64;
constexpr int kCustomHeaderValueBytes = 128;
constexpr int kCustomHeaderBytes = 192;

// In a handle's header field: send nothing for this header, not even its default.
constexpr const char* kHeaderSuppressed = "***";
// The one body conversion besides passing bytes through.
constexpr const char* kAsciiEncoding = "US_ASCII";
// `newHttpHandle` flag: connect to the server itself even when a proxy is set.
constexpr int kHttpNoProxy = 8;

// How a handle's connection uses the proxy. Forward: the proxy gets each request, in absolute
// form. Tunnel (TLS to the server): the proxy opened a CONNECT tunnel to the server, and the
// requests inside go as to the server itself.
constexpr uint8_t kProxyForward = 1;
constexpr uint8_t kProxyTunnel = 2;

struct CustomHeader {
  char name[kCustomHeaderNameBytes];
  char value[kCustomHeaderValueBytes];
};
static_assert(sizeof(CustomHeader) == kCustomHeaderBytes);

struct HttpHandle {
  char status[kHttpStatusBytes];  // the response's status code, "0" until a status line is read
  uint8_t method;
  char path[kHttpPathBytes];
  char version[kHttpVersionBytes];
  char headers[kHeaderCount][kHeaderValueBytes];
  CustomHeader* custom[kCustomHeaderSlots];  // filled from the first slot on, null when empty
  uint8_t proxy;  // kProxyForward, kProxyTunnel, or 0 when the connection goes to the server
  char host[kHttpHostBytes];
  uint16_t port;
  SlmStream* socketStream;
  BufferedStream* headStream;  // over the socket stream
  BufferedStream* bodyStream;  // over the encoding stream
  SlmStream* encodingStream;   // writes to and reads from the head stream
  int64_t answerLimitBytes;    // the largest response body taken
  int64_t answerBytes;         // body bytes received so far; kAnswerRefused once over the limit
  // The request's Service value, which names the answer when it is refused (the path names it
  // when empty).
  char answerService[kHeaderValueBytes];
};

constexpr int64_t kAnswerRefused = -1;

// Opens a connected handle, through the proxy unless none is set or `flags` holds kHttpNoProxy.
// `timeout` is the read time-out in seconds. Its answer limit is kMaxServiceAnswerBytes. With
// server_tls the connection runs TLS to the server, through a CONNECT tunnel when it goes through
// the proxy; a tunnel the proxy refuses or a failed TLS start is an ERROR line. Null on failure.
HttpHandle* newHttpHandle(int method, const char* path, const char* version, const char* host,
                          uint16_t port, int timeout, int flags);
// Null-safe. Closes the streams and the connection, frees the handle.
void freeHttpHandle(HttpHandle* handle);
// Port 0 means no proxy. Returns 1.
int setHttpProxy(const char* host, uint16_t port);
// Names the process-wide body conversion of new handles: kAsciiEncoding converts, anything else
// passes bytes through. Empty unless set.
void setHttpContentEncoding(const char* name);
// Sets the process-wide default of header `id`. 1, or 0 for an id outside the table.
int setDefaults(int id, const char* value);
// Sets a handle's header value (null: nothing changes). Header 9 also selects the body
// conversion. 1, or 0 for an id outside the table or an unknown encoding.
int putHeader(HttpHandle* handle, int id, const char* value);
// Stores a copy of `record` in the first free custom slot. 1, or 0 for a null record or when all
// slots are in use.
int putCustomHearder(HttpHandle* handle, const CustomHeader* record);
// Writes the request line and headers and flushes them. 1, or 0 when a write fails.
int setRequest(HttpHandle* handle);
// Appends to the request body. 1, or 0 when the write fails.
int sendContent(HttpHandle* handle, const char* data, int length);
// Sets the largest response body the handle takes, by its Content-Length or by the bytes that
// come. An answer over it is refused with "ERROR - Answer of ... over its limit of N bytes".
void setAnswerLimit(HttpHandle* handle, int64_t maxBytes);
// How many more body bytes the answer may take; below 0 once it was refused.
int64_t answerRoom(const HttpHandle* handle);
// Counts `count` body bytes as received. False, after the refusal's ERROR line, when they take the
// answer over its limit; every later answerRoom is then below 0.
bool countAnswerBytes(HttpHandle* handle, int count);
// Sends the request and reads the answer's status line and headers. 1 for a 2xx answer (the
// header fields then hold the response's headers), else 0; also 0, after the refusal's ERROR
// line, when the Content-Length is over the handle's answer limit. The body buffer grows towards
// the Content-Length only as the body's bytes arrive.
int getAnswer(HttpHandle* handle);
// Copies header `id`'s value into `destination` (kHeaderValueBytes). 1, or 0 for an id below 0
// or above 15; id 15 names no header and gives an empty value.
int getHeaderById(const HttpHandle* handle, int id, char* destination);
// Looks `record->name` up among the custom headers in use, then among the header names, and
// copies the value into `record->value`. 1 if found, else 0.
int getHeaderByName(const HttpHandle* handle, CustomHeader* record);
// tokenizeStream on the response body, then terminates the token inside its area. Returns the
// tokenizer's result.
int getContentToken(HttpHandle* handle, const TokenDesc* delimA, const TokenDesc* delimB,
                    TokenBuffer* tokenBuffer, int mode);
// Zeroes `area` and reads up to `size` body bytes. Returns the count, kContentEnd once the peer
// has closed the connection, 0 on any other failure or when nothing was read.
constexpr int kContentEnd = -1;
int getContentChunk(HttpHandle* handle, char* area, int size);

}  // namespace slm
