// Service framing over the HTTP client: the request body is a list of CR LF lines ending in the
// request terminator; the answer must speak this protocol version and ends in a result trailer.
// Downloads are plain GETs whose body is saved as it arrives. The delimiters and identity headers
// are written here once at start-up.
#include "agent_core/communication/slm.h"

#include <errno.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/message/nls.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"
#include "agent_core/verifySign.h"

namespace slm {

uint16_t default_time_out = 0;

namespace {

constexpr TokenDesc tokenOf(const char* text) {
  return makeTokenDesc(text, static_cast<int>(std::char_traits<char>::length(text)));
}

}  // namespace

// The delimiters hold their texts from program start rather than from initSlmServices: that call
// stops early at a customer name it cannot convert, and empty delimiters would match anywhere,
// gluing the request fields together and reading any answer as a well-formed trailer of result 0.
TokenDesc crlf_tk = tokenOf("\r\n");
TokenDesc par_sep_tk = tokenOf("\r\n");
TokenDesc fld_sep_tk = tokenOf("|");
TokenDesc response_tag_tk = tokenOf("<response:");
TokenDesc response_sep_tk = tokenOf(",");
TokenDesc response_end_tk = tokenOf(":");
TokenDesc begin_comps_tk = tokenOf("<components>\r\n");
TokenDesc end_comps_tk = tokenOf("</components>\r\n");
TokenDesc begin_files_tk = tokenOf("<files>\r\n");
TokenDesc end_files_tk = tokenOf("</files>\r\n");
TokenDesc begin_div_tk = tokenOf("<division>\r\n");
TokenDesc end_div_tk = tokenOf("</division>\r\n");
TokenDesc begin_ent_tk = tokenOf("<enterprise>\r\n");
TokenDesc end_ent_tk = tokenOf("</enterprise>\r\n");

namespace {

constexpr size_t kCustomerUnitsMax = 256;
// The widest escape of one unit is backslash, 'u' and four digits.
constexpr size_t kEscapedUnitMax = 6;
constexpr size_t kTimeLineMax = 255;
constexpr size_t kTrailerTokenSize = 256;
constexpr int kDownloadChunkSize = 4048;
constexpr size_t kLocalPathSize = 4096;
constexpr const char* kRequestFormatVersion = "1.0";
constexpr const char* kRequestTagOpen = "<request:";
constexpr const char* kRequestTagClose = "ok>\r\n";
constexpr const char* kSignatureSuffix = ".sign";
constexpr const char* kHttpVersion = "HTTP/1.0";

// Writes the header form of the customer's code units to `out`, which has room for
// count × kEscapedUnitMax + 1 bytes.
void escapeCustomer(const uint16_t* units, int count, char* out) {
  char* end = out;
  for (int i = 0; i < count; ++i) {
    uint16_t c = units[i];
    switch (c) {
      case 12:
        end += sprintf(end, "\\f");
        break;
      case 13:
        end += sprintf(end, "\\r");
        break;
      case 9:
        end += sprintf(end, "\\t");
        break;
      case 10:
        end += sprintf(end, "\\n");
        break;
      case '\\':
        // A "\u" escape already in the name passes through as written.
        end += sprintf(end, (i + 1 < count && units[i + 1] == 'u') ? "\\" : "\\\\");
        break;
      default:
        // The lower bound is 20, not 32: units 20 to 31 go out as they are, which is how
        // servers read this header.
        if (c < 20 || c > 127) {
          end += sprintf(end, "\\u%04X", static_cast<unsigned>(c));
        } else {
          *end++ = static_cast<char>(c);
        }
    }
  }
  *end = '\0';
}

// Appends `text` to the text in `buffer` (of `size` bytes), never past `size` - 1 characters.
void appendBounded(char* buffer, size_t size, const char* text) {
  size_t used = strnlen(buffer, size - 1);
  copyBounded(buffer + used, size - 1 - used, text);
}

// Appends the local name of the server's file to `localPath`: the part of the path behind its
// last "/" (the whole path when its only "/" starts it), or host and port when that part is one
// character long, as for the path "/".
void appendLocalName(const ServerAddress* server, char* localPath, size_t size) {
  const char* slash = strrchr(server->path, '/');
  const char* name = (slash == nullptr || slash == server->path) ? server->path : slash + 1;
  if (strlen(name) == 1) {
    char port[12];
    snprintf(port, sizeof(port), "%u", static_cast<unsigned>(server->port));
    appendBounded(localPath, size, server->host);
    appendBounded(localPath, size, port);
  } else {
    appendBounded(localPath, size, name);
  }
}

struct HttpHandleDeleter {
  void operator()(HttpHandle* handle) const { freeHttpHandle(handle); }
};
using HttpHandlePtr = std::unique_ptr<HttpHandle, HttpHandleDeleter>;

// Reads the next trailer token into `area` (kTrailerTokenSize bytes). Returns the tokenizer's
// result: kTokenFoundB when the token ended where the trailer expects it.
int trailerToken(HttpHandle* handle, const TokenDesc* delimA, const TokenDesc* delimB, char* area) {
  TokenBuffer token{area, 0, static_cast<int>(kTrailerTokenSize)};
  return getContentToken(handle, delimA, delimB, &token, kTokenConsume);
}

}  // namespace

int initSlmServices(const ServerAddress* proxyRecord, uint16_t timeout) {
  if (proxyRecord != nullptr) setHttpProxy(proxyRecord->host, proxyRecord->port);
  default_time_out = timeout;

  char customer[kAgentTextSize] = "";
  (void)getAgentCharValue(kAgentCustomer, customer, sizeof(customer));
  uint16_t units[kCustomerUnitsMax + 1];
  size_t count = 0;
  if (convertUtf8ToUcs2(customer, units, kCustomerUnitsMax + 1, &count) != kTextConverted ||
      count > strlen(customer)) {
    return kSlmServicesBadCustomer;
  }
  char escaped[kCustomerUnitsMax * kEscapedUnitMax + 1];
  escapeCustomer(units, static_cast<int>(count), escaped);
  setDefaults(kHeaderSubjectCustomer, escaped);

  char subject[kAgentTextSize] = "";
  (void)getAgentCharValue(kAgentHostName, subject, sizeof(subject));
  setDefaults(kHeaderSubjectId, subject);
  return kSlmServicesReady;
}

HttpHandle* newSlmService(const ServerAddress* server, const char* serviceId, uint16_t timeout) {
  if (timeout == 0) timeout = default_time_out;
  HttpHandle* handle =
      newHttpHandle(kHttpPost, server->path, kHttpVersion, server->host, server->port, timeout, 0);
  if (handle == nullptr) {
    SLM_TRACE(0, "ERROR - no http handle");
    return nullptr;
  }
  putHeader(handle, kHeaderService, serviceId);

  // The request time goes out in milliseconds, always a whole second.
  AgentTime now = getNowWithOffset(0);
  char line[kTimeLineMax + 1];
  snprintf(line, sizeof(line), now != 0 ? "%d000" : "%d", now);
  if (sendSlmContent(handle, line, &par_sep_tk, kNoMask) != kContentSent ||
      sendSlmContent(handle, kRequestFormatVersion, &par_sep_tk, kNoMask) != kContentSent) {
    freeHttpHandle(handle);
    return nullptr;
  }
  return handle;
}

int sendSlmContent(HttpHandle* handle, const char* text, const TokenDesc* separator, int mask) {
  int length = static_cast<int>(strlen(text));
  int result = kContentSent;
  if (mask == kMask) {
    std::unique_ptr<char[]> masked(new (std::nothrow) char[length + 1]);
    if (masked == nullptr) return kContentFailed;
    memcpy(masked.get(), text, length + 1);
    // Only the first of each is masked; servers undo exactly that.
    if (char* bar = strchr(masked.get(), '|')) *bar = '*';
    if (char* lineEnd = strstr(masked.get(), "\r\n")) memcpy(lineEnd, "**", 2);
    result = sendContent(handle, masked.get(), length);
  } else {
    result = sendContent(handle, text, length);
  }
  if (result != kContentSent || separator == nullptr) return result;
  return sendContent(handle, separator->text, separator->length);
}

int endSlmRequest(HttpHandle* handle) {
  int result = sendSlmContent(handle, kRequestTagOpen, nullptr, kNoMask);
  if (result != kContentSent) return result;
  return sendSlmContent(handle, kRequestTagClose, nullptr, kNoMask);
}

int getSlmServiceResponse(HttpHandle* handle) {
  int answer = getAnswer(handle);
  if (answer != 1) {
    SLM_TRACE(0, "ERROR - Http in response, error %d", answer);
    return kServiceAnswerRejected;
  }
  char version[kHeaderValueBytes] = "";
  getHeaderById(handle, kHeaderScpVersion, version);
  const char* value = version;
  while (isspace(static_cast<unsigned char>(*value))) ++value;
  if (strcmp(value, kScpVersion) != 0) {
    SLM_TRACE(0, "ERROR - SCP version different, actual %s, server '%s'", kScpVersion, value);
    return kServiceAnswerRejected;
  }
  return kServiceAnswerUsable;
}

int endSlmService(HttpHandle* handle) {
  HttpHandlePtr owned(handle);
  char token[kTrailerTokenSize];

  int found = trailerToken(handle, &response_sep_tk, &response_tag_tk, token);
  if (found != kTokenFoundB) {
    SLM_TRACE(0, "ERROR - Slm service error '%s', error %d", token, found);
    return kServiceFailed;
  }
  found = trailerToken(handle, &crlf_tk, &response_sep_tk, token);
  if (found != kTokenFoundB) {
    SLM_TRACE(0, "ERROR - Slm service: %s, error %d", token, found);
    return kServiceFailed;
  }
  if (atoi(token) != 0) {
    SLM_TRACE(0, "ERROR - Slm service, communication error %s", token);
    return kServiceFailed;
  }
  found = trailerToken(handle, &crlf_tk, &response_end_tk, token);
  if (found != kTokenFoundB) {
    SLM_TRACE(0, "ERROR - Slm service error '%s', error %d", token, found);
    return kServiceFailed;
  }
  int code = atoi(token);

  char service[kHeaderValueBytes] = "";
  getHeaderById(handle, kHeaderService, service);
  owned.reset();

  switch (code) {
    case 0:
      return kServiceOk;
    case kServerFirstPlugin:
      SLM_TRACE(0, "WARNING - First plugin on this server, service %s", service);
      return kServiceUnknownAgent;
    case kServerUnknownAgent:
      SLM_TRACE(0, "ERROR - Unknown Agent, service %s", service);
      return kServiceUnknownAgent;
    case kServerUnknownDivision:
      SLM_TRACE(0, "ERROR - Unknown Division, service %s", service);
      return kServiceUnknownDivision;
    case kServerBadNode:
      SLM_TRACE(0, "ERROR - Bad node, service %s", service);
      return kServiceBadNode;
    case kServerObsoleteScan:
      SLM_TRACE(0, "WARNING - Obsolete scan, service %s", service);
      return kServiceObsoleteScan;
    case kServerAgentIsNewest:
      SLM_TRACE(0, "OK - Agent is the newer available, service %s", service);
      return kServiceNoNewerAgent;
    case kServerNoAgentForSystem:
      SLM_TRACE(0, "ERROR - No Agent for this system available, service %s", service);
      return kServiceFailed;
    case kServerIllegalUpdate:
      // Both lines are written: the server counts an illegal update as an internal error too.
      SLM_TRACE(0,
                "ERROR - Illegal update. Some date is incorrect (probably the "
                "agent_id), "
                "service %s",
                service);
      SLM_TRACE(0, "WARNING - Server internal error, service %s", service);
      return kServiceFailed;
    case kServerInternalError:
      SLM_TRACE(0, "WARNING - Server internal error, service %s", service);
      return kServiceFailed;
    default:
      SLM_TRACE(0, "ERROR - Unknown server error: %d, service %s", code, service);
      return kServiceFailed;
  }
}

int slmGetFile(const ServerAddress* server, char* localPath, size_t size) {
  HttpHandlePtr handle(newHttpHandle(kHttpGet, server->path, kHttpVersion, server->host,
                                     server->port, default_time_out, 0));
  if (handle == nullptr) {
    SLM_TRACE(0, "ERROR - no http handle");
    return kDownloadFailed;
  }
  // A download is taken as it comes: no body conversion, no encoding header.
  putHeader(handle.get(), kHeaderContentEncoding, kHeaderSuppressed);
  setAnswerLimit(handle.get(), securitySettings().maxDownloadBytes);
  int answer = getAnswer(handle.get());
  if (answer != 1) {
    handle.reset();
    SLM_TRACE(0, "ERROR - Http in response, error %d", answer);
    return kDownloadNoAnswer;
  }

  appendLocalName(server, localPath, size);
  FileHandle file(fopen(localPath, "wb"));
  if (file == nullptr) {
    SLM_TRACE(0, "ERROR - Couldn't open file %s for saving (errno=%d)", localPath, errno);
    return kDownloadFailed;
  }
  char chunk[kDownloadChunkSize];
  for (;;) {
    int got = getContentChunk(handle.get(), chunk, kDownloadChunkSize);
    if (got == kContentEnd) break;
    if (got <= 0) {
      SLM_TRACE(0, "ERROR - Getting Http content, error %d", got);
      return kDownloadFailed;
    }
    size_t written = fwrite(chunk, 1, static_cast<size_t>(got), file.get());
    if (written != static_cast<size_t>(got)) {
      SLM_TRACE(0, "ERROR - Saving %s, retval %d", localPath, static_cast<int>(written));
      return kDownloadFailed;
    }
  }
  // The server closing the connection is the end of the file.
  long bytes = ftell(file.get());
  if (fflush(file.get()) != 0) {
    SLM_TRACE(0, "ERROR - Saving %s, retval %d", localPath, -1);
    return kDownloadFailed;
  }
  SLM_TRACE(2, "OK - Get %s, %d bytes in %s", server->path, static_cast<int>(bytes), localPath);
  return kDownloadDone;
}

int slmGetSignedFile(ServerAddress* server, char* localPath, size_t size) {
  char signaturePath[kLocalPathSize];
  copyBounded(signaturePath, sizeof(signaturePath) - 1, localPath);
  if (slmGetFile(server, localPath, size) != kDownloadDone) return kDownloadFailed;

  appendBounded(server->path, sizeof(server->path), kSignatureSuffix);
  if (slmGetFile(server, signaturePath, sizeof(signaturePath)) != kDownloadDone) {
    return kDownloadFailed;
  }

  uint8_t signature[kSignatureSize];
  size_t got = 0;
  if (FileHandle file{fopen(signaturePath, "rb")})
    got = fread(signature, 1, sizeof(signature), file.get());
  if (got != sizeof(signature)) {
    remove(signaturePath);
    return kDownloadFailed;
  }
  int verdict = kSignatureInvalid;
  if (FileHandle file{fopen(localPath, "rb")}) verdict = verifySignature(file.get(), signature);
  remove(signaturePath);
  return verdict == kSignatureValid ? kDownloadDone : kDownloadFailed;
}

}  // namespace slm
