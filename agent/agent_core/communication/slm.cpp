// Service framing over the HTTP client: the request body is a list of CR LF lines ending in the
// request terminator; the answer must speak this protocol version and ends in a result trailer.
// Downloads are plain GETs whose body is saved as it arrives. The delimiters and identity headers
// are written here once at start-up.
#include "agent_core/communication/slm.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

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
#include "agent_core/site_signature.h"
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

}  // namespace

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

namespace {

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

namespace {

// A download being written as NAME.part beside its final name, in a directory held open, so that
// nobody can swap the directory or plant a link at the name meanwhile. The part file goes away
// unless it is published under its name.
class PartFile {
 public:
  PartFile() = default;
  PartFile(const PartFile&) = delete;
  PartFile& operator=(const PartFile&) = delete;
  ~PartFile() {
    if (directory_ < 0) return;
    if (!published_) (void)unlinkat(directory_, partName_.c_str(), 0);
    close(directory_);
  }

  // Creates the part file for `path` afresh: a part left by an earlier try is removed, never
  // followed. The descriptor to write to, or -1 with errno set.
  int create(const char* path) {
    const char* slash = strrchr(path, '/');
    std::string directory = slash == nullptr ? "." : std::string(path, slash - path + 1);
    name_ = slash == nullptr ? path : slash + 1;
    partName_ = name_ + kPartSuffix;
    directory_ = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory_ < 0) return -1;
    (void)unlinkat(directory_, partName_.c_str(), 0);
    return openat(directory_, partName_.c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kDownloadMode);
  }
  // The finished part for reading, or null.
  FILE* reopen() const {
    int fd = openat(directory_, partName_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    FILE* file = fd < 0 ? nullptr : fdopen(fd, "rb");
    if (file == nullptr && fd >= 0) close(fd);
    return file;
  }
  // The name the file takes once published.
  const char* name() const { return name_.c_str(); }
  // Gives the part its name, replacing whatever had it. False with errno set.
  bool publish() {
    if (renameat(directory_, partName_.c_str(), directory_, name_.c_str()) != 0) return false;
    published_ = true;
    return true;
  }

 private:
  static constexpr const char* kPartSuffix = ".part";
  static constexpr mode_t kDownloadMode = 0600;
  int directory_ = -1;
  std::string name_;
  std::string partName_;
  bool published_ = false;
};

bool writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t written = write(fd, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

// Fetches `server`'s path into the part file of the local name appended to `localPath`.
int fetchToPart(const ServerAddress* server, char* localPath, size_t size, PartFile* part) {
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
  int fd = part->create(localPath);
  if (fd < 0) {
    SLM_TRACE(0, "ERROR - Couldn't open file %s for saving (errno=%d)", localPath, errno);
    return kDownloadFailed;
  }
  FileDescriptor file(fd);
  char chunk[kDownloadChunkSize];
  long bytes = 0;
  for (;;) {
    int got = getContentChunk(handle.get(), chunk, kDownloadChunkSize);
    if (got == kContentEnd) break;
    if (got <= 0) {
      SLM_TRACE(0, "ERROR - Getting Http content, error %d", got);
      return kDownloadFailed;
    }
    if (!writeAll(fd, chunk, static_cast<size_t>(got))) {
      SLM_TRACE(0, "ERROR - Saving %s, retval %d", localPath, -1);
      return kDownloadFailed;
    }
    bytes += got;
  }
  // The server closing the connection is the end of the file.
  SLM_TRACE(2, "OK - Get %s, %d bytes in %s", server->path, static_cast<int>(bytes), localPath);
  return kDownloadDone;
}

}  // namespace

int slmGetFile(const ServerAddress* server, char* localPath, size_t size) {
  PartFile part;
  int result = fetchToPart(server, localPath, size, &part);
  if (result != kDownloadDone) return result;
  if (!part.publish()) {
    SLM_TRACE(0, "ERROR - Saving %s, retval %d", localPath, -1);
    return kDownloadFailed;
  }
  return kDownloadDone;
}

namespace {

// Takes the ".sign" that fetchSignedFile appended off `server`'s path again.
void removeSignatureSuffix(ServerAddress* server) {
  const size_t length = strlen(server->path);
  const size_t legacy = strlen(kSignatureSuffix);
  if (length >= legacy && strcmp(server->path + length - legacy, kSignatureSuffix) == 0) {
    server->path[length - legacy] = '\0';
  }
}

// Fetches the site signature of `file` from `server`'s path plus ".sig" into the directory text in
// `signaturePath` (kLocalPathSize bytes, receiving the signature's local path) and checks it
// against `digest` under the file's local name. Every failure is traced here.
int checkSiteSignature(ServerAddress* server, const PartFile& file, const uint8_t* digest,
                       char* signaturePath) {
  SiteKeys keys;
  if (loadSiteKeys(securitySettings().siteKeysFile, &keys) != kSiteKeysLoaded) {
    return kSiteSignatureMismatch;
  }
  appendBounded(server->path, sizeof(server->path), kSiteSignatureSuffix);
  PartFile signatureFile;
  if (fetchToPart(server, signaturePath, kLocalPathSize, &signatureFile) != kDownloadDone) {
    SLM_TRACE(0, "ERROR - No site signature %s for %s", server->path, file.name());
    return kSiteSignatureNotDownloaded;
  }
  // Exactly the signature: a longer file is not one this agent's tools made.
  uint8_t signature[kSiteSignatureSize + 1];
  FileHandle stream(signatureFile.reopen());
  if (stream == nullptr ||
      fread(signature, 1, sizeof signature, stream.get()) != kSiteSignatureSize) {
    SLM_TRACE(0, "ERROR - Site signature %s is not %d bytes", server->path,
              static_cast<int>(kSiteSignatureSize));
    return kSiteSignatureMismatch;
  }
  if (verifySiteSignature(keys, file.name(), digest, signature) != kSiteSignatureValid) {
    SLM_TRACE(0, "ERROR - Site signature check failed for %s: no site key signed it as %s",
              server->path, file.name());
    return kSiteSignatureMismatch;
  }
  return kSignedFileValid;
}

}  // namespace

int fetchSignedFile(ServerAddress* server, char* localPath, size_t size, char* signaturePath,
                    const uint8_t* requiredSha256) {
  copyBounded(signaturePath, kLocalPathSize - 1, localPath);
  char siteSignaturePath[kLocalPathSize];
  copyBounded(siteSignaturePath, kLocalPathSize - 1, localPath);
  PartFile file;
  if (fetchToPart(server, localPath, size, &file) != kDownloadDone) return kSignedFileNotDownloaded;
  appendBounded(server->path, sizeof(server->path), kSignatureSuffix);
  PartFile signatureFile;
  if (fetchToPart(server, signaturePath, kLocalPathSize, &signatureFile) != kDownloadDone) {
    return kSignatureNotDownloaded;
  }
  // The first 64 bytes are the signature; whatever follows them is not looked at.
  uint8_t signature[kSignatureSize];
  {
    FileHandle stream(signatureFile.reopen());
    if (stream == nullptr) return kSignatureNotOpened;
    if (fread(signature, 1, sizeof signature, stream.get()) != sizeof signature) {
      return kSignatureTooShort;
    }
  }
  FileHandle stream(file.reopen());
  if (stream == nullptr) return kSignedFileNotOpened;
  if (verifySignature(stream.get(), signature) != kSignatureValid) return kSignatureMismatch;
  const bool site = securitySettings().signaturePolicy == SignaturePolicy::kSite;
  if (site || requiredSha256 != nullptr) {
    uint8_t digest[kSha256Size];
    if (sha256OfFile(stream.get(), digest) != kDigestDone) return kSignedFileNotOpened;
    if (site) {
      // The legacy signature passed; the site's must pass too.
      removeSignatureSuffix(server);
      int checked = checkSiteSignature(server, file, digest, siteSignaturePath);
      if (checked != kSignedFileValid) return checked;
    }
    if (requiredSha256 != nullptr && memcmp(digest, requiredSha256, kSha256Size) != 0) {
      return kSignedFileOtherDigest;
    }
  }
  if (!file.publish()) return kSignedFileNotSaved;
  return kSignedFileValid;
}

int fetchSiteSignedText(ServerAddress* server, char* localPath, size_t size, size_t maxBytes,
                        std::string* text) {
  char signaturePath[kLocalPathSize];
  copyBounded(signaturePath, kLocalPathSize - 1, localPath);
  PartFile file;
  if (fetchToPart(server, localPath, size, &file) != kDownloadDone) return kSignedFileNotDownloaded;
  FileHandle stream(file.reopen());
  uint8_t digest[kSha256Size];
  if (stream == nullptr || sha256OfFile(stream.get(), digest) != kDigestDone) {
    return kSignedFileNotOpened;
  }
  int checked = checkSiteSignature(server, file, digest, signaturePath);
  if (checked != kSignedFileValid) return checked;
  try {
    text->clear();
    char chunk[kDownloadChunkSize];
    rewind(stream.get());
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, stream.get())) > 0) {
      if (text->size() + got > maxBytes) return kSignedFileTooLarge;
      text->append(chunk, got);
    }
  } catch (const std::bad_alloc&) {
    return kSignedFileNotOpened;
  }
  return ferror(stream.get()) ? kSignedFileNotOpened : kSignedFileValid;
}

int slmGetSignedFile(ServerAddress* server, char* localPath, size_t size) {
  char signaturePath[kLocalPathSize];
  return fetchSignedFile(server, localPath, size, signaturePath) == kSignedFileValid
             ? kDownloadDone
             : kDownloadFailed;
}

}  // namespace slm
