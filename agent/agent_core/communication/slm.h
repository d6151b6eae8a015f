// The service exchange with a runtime server: the process-wide protocol state (read time-out,
// delimiter tokens, identity headers), opening a service and sending its fields, checking the
// answer's protocol version, decoding the result trailer, and plain and signed file downloads.
// The state is written once by initSlmServices before any service runs and only read afterwards;
// each service handle belongs to the one thread that opened it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/communication/server_address.h"
#include "agent_core/communication/slm_stream.h"

namespace slm {

struct HttpHandle;

// Service identifiers, sent in the Service header.
inline constexpr const char* kServicePing = "1";
inline constexpr const char* kServicePlugin = "2";
inline constexpr const char* kServiceCatalog = "3";
inline constexpr const char* kServiceUploadFiles = "7";
inline constexpr const char* kServiceParameters = "8";
inline constexpr const char* kServiceTopology = "11";
inline constexpr const char* kServiceNewAgent = "12";

// The protocol version this agent speaks; an answer must carry exactly this.
inline constexpr const char* kScpVersion = "1.1.1";

// Read time-out in seconds for services opened with time-out 0 and for every download.
extern uint16_t default_time_out;

// Delimiters of the service framing; they hold these texts from program start.
extern TokenDesc crlf_tk;          // "\r\n"
extern TokenDesc par_sep_tk;       // "\r\n", ends each request field
extern TokenDesc fld_sep_tk;       // "|"
extern TokenDesc response_tag_tk;  // "<response:"
extern TokenDesc response_sep_tk;  // ","
extern TokenDesc response_end_tk;  // ":"
extern TokenDesc begin_comps_tk;   // "<components>\r\n"
extern TokenDesc end_comps_tk;     // "</components>\r\n"
extern TokenDesc begin_files_tk;   // "<files>\r\n"
extern TokenDesc end_files_tk;     // "</files>\r\n"
extern TokenDesc begin_div_tk;     // "<division>\r\n"
extern TokenDesc end_div_tk;       // "</division>\r\n"
extern TokenDesc begin_ent_tk;     // "<enterprise>\r\n"
extern TokenDesc end_ent_tk;       // "</enterprise>\r\n"

constexpr int kSlmServicesReady = 1;
constexpr int kSlmServicesBadCustomer = 0;

// Sets the proxy (when `proxyRecord` is not null; only its host and port count), the default
// time-out, and the SubjectCustomer and SubjectID header defaults from the agent's customer and
// host name. kSlmServicesBadCustomer when the customer is not convertible UTF-8; both headers are
// then left as they were.
[[nodiscard]] int initSlmServices(const ServerAddress* proxyRecord, uint16_t timeout);

// Opens a POST of service `serviceId` to `server` (time-out 0: default_time_out) whose body already
// holds the request time and the request format version. Null when no connection could be made.
[[nodiscard]] HttpHandle* newSlmService(const ServerAddress* server, const char* serviceId,
                                        uint16_t timeout);

constexpr int kNoMask = 0;
constexpr int kMask = 1;
constexpr int kContentSent = 1;
constexpr int kContentFailed = 0;

// Appends `text` to the request body, with its first "|" sent as "*" and its first CR LF as "**"
// when `mask` is kMask, then `separator`'s text when it is not null. kContentSent or
// kContentFailed.
int sendSlmContent(HttpHandle* handle, const char* text, const TokenDesc* separator, int mask);
// Appends the request terminator "<request:ok>\r\n" (as its two parts). kContentSent or
// kContentFailed.
int endSlmRequest(HttpHandle* handle);

constexpr int kServiceAnswerUsable = 1;
constexpr int kServiceAnswerRejected = -1;

// Sends the request and reads the answer's head. kServiceAnswerUsable for a 2xx answer of this
// protocol version; kServiceAnswerRejected otherwise (the caller still frees the handle).
[[nodiscard]] int getSlmServiceResponse(HttpHandle* handle);

// Service results, as endSlmService and the individual services return them.
constexpr int kServiceOk = 0;
constexpr int kServiceFailed = 1;
constexpr int kServiceMalformedPayload = 2;  // returned by services that parse a payload
constexpr int kServiceObsoleteScan = 4;
constexpr int kServiceUnknownAgent = 5;  // also the first plug-in on this server
constexpr int kServiceUnknownDivision = 6;
constexpr int kServiceBadNode = 10;
constexpr int kServiceNoNewerAgent = 11;

// Result codes a server puts in the trailer.
constexpr int kServerFirstPlugin = 1;
constexpr int kServerUnknownAgent = -1;
constexpr int kServerUnknownDivision = -2;
constexpr int kServerBadNode = -3;
constexpr int kServerObsoleteScan = -4;
constexpr int kServerAgentIsNewest = -5;
constexpr int kServerNoAgentForSystem = -6;
constexpr int kServerIllegalUpdate = -503;
constexpr int kServerInternalError = -999;

// Reads the trailer "<response:" status "," code ":" that follows the payload, frees the handle
// and returns the service result for the code; kServiceFailed for a missing or malformed trailer
// or a communication status other than 0.
int endSlmService(HttpHandle* handle);

// Appends the local name of the server's file to `localPath` (a buffer of `size` bytes): the part
// of the path behind its last "/" (the whole path when its only "/" starts it), or host and port
// when that part is one character long, as for the path "/".
void appendLocalName(const ServerAddress* server, char* localPath, size_t size);

constexpr int kDownloadDone = 1;
constexpr int kDownloadFailed = 0;
constexpr int kDownloadNoAnswer = -1;

// Fetches `server`'s path into the directory text in `localPath` (a buffer of `size` bytes), to
// which the file's local name is appended: the part of the path behind its last "/", or the
// server's host and port when that part is a single character. The body is written as NAME.part,
// created afresh (never through a link), and takes the file's name once the server has closed
// the connection after it: kDownloadDone. kDownloadNoAnswer when no 2xx answer came or its
// Content-Length is over the largest download taken; else (the bytes themselves over it too)
// kDownloadFailed, and nothing is left at either name.
[[nodiscard]] int slmGetFile(const ServerAddress* server, char* localPath, size_t size);

// Local paths of downloads are built in buffers of this size.
constexpr size_t kLocalPathSize = 4096;

// Results of fetchSignedFile: the step that failed.
constexpr int kSignedFileValid = 0;
constexpr int kSignedFileNotDownloaded = 1;
constexpr int kSignatureNotDownloaded = 2;
constexpr int kSignatureNotOpened = 3;
constexpr int kSignatureTooShort = 4;
constexpr int kSignedFileNotOpened = 5;
constexpr int kSignatureMismatch = 6;
constexpr int kSignedFileNotSaved = 7;  // verified, but could not be given its name
// Under signature_policy=site: no site signature could be fetched; it is not the right size, or
// the site keys file was refused, or no site key signed the file under its name.
constexpr int kSiteSignatureNotDownloaded = 8;
constexpr int kSiteSignatureMismatch = 9;
constexpr int kSignedFileOtherDigest = 10;  // its SHA-256 is not the one required
constexpr int kSignedFileTooLarge = 11;

// Downloads `server`'s path as slmGetFile does and its signature from the same path plus ".sign"
// into the same directory, `signaturePath` (kLocalPathSize bytes) receiving the signature's local
// path. Under signature_policy=site, once that signature is valid, the site signature is fetched
// from the path plus ".sig" and checked with the site keys against the file's SHA-256 and its
// local name; both must pass (the reasons of a site failure are traced here). When
// `requiredSha256` is not null, the file's SHA-256 must also be that one. The path is left with
// ".sign" (under site: ".sig") appended. The file is written as NAME.part and takes its name only
// once it passed; a file that fails is removed, and the signature files never stay. The caller
// holds the verification context.
[[nodiscard]] int fetchSignedFile(ServerAddress* server, char* localPath, size_t size,
                                  char* signaturePath, const uint8_t* requiredSha256 = nullptr);

// Downloads `server`'s path into the directory text in `localPath` (a buffer of `size` bytes, to
// which the local name is appended) and checks its site signature from the path plus ".sig", as
// fetchSignedFile does under signature_policy=site, whatever the policy. kSignedFileValid with
// `text` holding the file's bytes; kSignedFileTooLarge when they are over `maxBytes`; else the
// step that failed. The file is never kept.
[[nodiscard]] int fetchSiteSignedText(ServerAddress* server, char* localPath, size_t size,
                                      size_t maxBytes, std::string* text);

// fetchSignedFile without its detail: kDownloadDone only for a valid signature, else
// kDownloadFailed.
[[nodiscard]] int slmGetSignedFile(ServerAddress* server, char* localPath, size_t size);

}  // namespace slm
