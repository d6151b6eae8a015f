// The catalog download with its payload parser, and the upload of file records.
#include "agent_core/communication/catalog.h"

#include <cstdlib>
#include <cstring>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/communication/service_call.h"
#include "agent_core/data/inventory_record.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr int kTokenSize = 512;
using Token = PayloadToken<kTokenSize>;

// A number read with atoi that comes out 0 must say so with a leading '0'.
bool plausibleNumber(const char* text, int value) {
  return value != 0 || text[0] == '0';
}

// Reads the attribute that ends at `end` (the other delimiter of a line is `other`) into *value.
// kServiceOk; kServiceFailed when it ends elsewhere; `badNumber` for a 0 not written as such.
int readAttribute(HttpHandle* handle, const TokenDesc* end, const TokenDesc* other, int* value,
                  int badNumber, bool traceBad) {
  Token token;
  if (token.read(handle, end, other) != kTokenFoundA) return kServiceFailed;
  *value = atoi(token.text());
  if (plausibleNumber(token.text(), *value)) return kServiceOk;
  if (traceBad) SLM_TRACE(0, "ERROR - Bad number %d, string %s", *value, token.text());
  return badNumber;
}

// Reads up to and past `tag`, which must come before the trailer.
int skipTo(HttpHandle* handle, const TokenDesc* tag) {
  Token skipped;
  if (skipped.read(handle, tag, &response_tag_tk) == kTokenFoundA) return kServiceOk;
  SLM_TRACE(0, "ERROR - '%s' not found in '%s'", tag->text, skipped.text());
  return kServiceFailed;
}

// Hands the lists to the batches' merge once they hold a batch of records. False when the merge
// failed.
bool handOver(SlmList* components, SlmList* files, CatalogBatches* batches) {
  if (batches == nullptr || entries(components) + entries(files) < batches->records) return true;
  batches->result = batches->merge(components, files);
  if (batches->result != 0) return false;
  clearList(components);
  clearList(files);
  return true;
}

// Component lines "id|a1|a2|a3" up to the end of the section.
int readComponents(HttpHandle* handle, SlmList* components, SlmList* files,
                   CatalogBatches* batches) {
  for (;;) {
    Token id;
    if (id.read(handle, &fld_sep_tk, &end_comps_tk) != kTokenFoundA) return kServiceOk;
    ComponentRecord component{};
    component.compId = aToSlmInt64(id.text());
    if (component.compId == 0) {
      SLM_TRACE(0, "ERROR - Null component id, string %s", id.text());
      return kServiceMalformedPayload;
    }
    const TokenDesc* ends[3] = {&fld_sep_tk, &fld_sep_tk, &crlf_tk};
    for (int i = 0; i < 3; ++i) {
      int value = 0;
      const TokenDesc* other = ends[i] == &crlf_tk ? &fld_sep_tk : &crlf_tk;
      int result = readAttribute(handle, ends[i], other, &value, kServiceMalformedPayload, true);
      if (result != kServiceOk) return result;
      component.attributes[i] = static_cast<uint8_t>(value);
    }
    if (append(components, &component) != kListOk) {
      SLM_TRACE(0, "ERROR - Couldn't add component to LAT");
      return kServiceMalformedPayload;
    }
    if (!handOver(components, files, batches)) return kServiceFailed;
  }
}

// The component ids that end a file line: each id ends at "|", zeros are not kept, the token that
// ends at CR LF closes the line unread. Ids beyond the sixteenth are dropped with the line's rest.
int readComponentIds(HttpHandle* handle, FileRecord* file) {
  int32_t count = 0;
  for (;;) {
    Token id;
    int found = id.read(handle, &crlf_tk, &fld_sep_tk);
    if (found == kTokenFoundA) break;
    if (found != kTokenFoundB) return kServiceFailed;
    if (count == kMaxFileComponents) {
      // Further ids are read and dropped up to the line end.
      continue;
    }
    file->componentIds[count] = aToSlmInt64(id.text());
    if (file->componentIds[count] != 0) ++count;
  }
  for (int32_t i = count; i < kMaxFileComponents; ++i) file->componentIds[i] = 0;
  file->componentCount = count;
  return kServiceOk;
}

// File lines "name|size|a1|a2|id|...|id|" up to the end of the section.
int readFiles(HttpHandle* handle, SlmList* components, SlmList* files, CatalogBatches* batches) {
  for (;;) {
    Token name;
    if (name.read(handle, &fld_sep_tk, &end_files_tk) != kTokenFoundA) return kServiceOk;
    FileRecord file{};
    copyBounded(file.name, kFileNameSize - 1, name.text());
    Token size;
    if (size.read(handle, &fld_sep_tk, &crlf_tk) != kTokenFoundA) return kServiceFailed;
    file.size = aToSlmInt64(size.text());
    if (file.size == 0) return kServiceMalformedPayload;
    // A bad first attribute fails the download, a bad second one marks the payload malformed.
    int result =
        readAttribute(handle, &fld_sep_tk, &crlf_tk, &file.attribute1, kServiceFailed, false);
    if (result != kServiceOk) return result;
    result = readAttribute(handle, &fld_sep_tk, &crlf_tk, &file.attribute2,
                           kServiceMalformedPayload, false);
    if (result != kServiceOk) return result;
    if (readComponentIds(handle, &file) != kServiceOk) return kServiceFailed;
    if (append(files, &file) != kListOk) return kServiceFailed;
    if (!handOver(components, files, batches)) return kServiceFailed;
  }
}

// The record's line: masked texts and decimal numbers between "|", ended by CR LF.
bool sendRecord(HttpHandle* handle, const InventoryRecord& record) {
  const std::string size = int64Text(record.size);
  const std::string first = int32Text(static_cast<int32_t>(record.first));
  const std::string second = int32Text(static_cast<int32_t>(record.second));
  struct Part {
    const char* text;
    int mask;
  };
  const Part parts[] = {
      {record.name, kMask},     {size.c_str(), kNoMask},   {record.directory, kMask},
      {first.c_str(), kNoMask}, {second.c_str(), kNoMask}, {record.text1, kMask},
      {record.text2, kMask},    {record.text3, kMask},     {record.text4, kMask}};
  constexpr size_t kParts = sizeof parts / sizeof parts[0];
  bool sent = true;
  for (size_t i = 0; i < kParts; ++i) {
    const TokenDesc* separator = i + 1 < kParts ? &fld_sep_tk : &crlf_tk;
    sent = sendSlmContent(handle, parts[i].text, separator, parts[i].mask) == kContentSent && sent;
  }
  return sent;
}

}  // namespace

int downloadCatalog(int64_t* lastUpdateTime, SlmList* components, SlmList* files) {
  return downloadCatalogInBatches(lastUpdateTime, components, files, nullptr);
}

int downloadCatalogInBatches(int64_t* lastUpdateTime, SlmList* components, SlmList* files,
                             CatalogBatches* batches) {
  ServerAddress server;
  if (preferredServer(&server) != kServiceOk) return kServiceFailed;
  SLM_TRACE(2, "SRVCS - Catalog from server: %s", server.host);
  HttpHandle* handle = requestService(
      server, kServiceCatalog,
      {{int64Text(agentInt(kAgentId)), kNoMask}, {int64Text(*lastUpdateTime), kNoMask}},
      kCatalogServiceTimeoutSeconds);
  if (handle == nullptr) return kServiceFailed;

  Token time;
  // An answer without its first line holds no catalog, whatever its trailer says: the agent stays
  // plugged in and asks again at the next period.
  if (time.read(handle, &crlf_tk, &response_tag_tk, kTokenPeek) == kTokenFoundB) {
    return abandonService(handle, kServiceFailed);
  }
  if (time.read(handle, &crlf_tk, &response_tag_tk) != kTokenFoundA) {
    return abandonService(handle, kServiceFailed);
  }
  *lastUpdateTime = aToSlmInt64(time.text());
  if (*lastUpdateTime == 0) {
    SLM_TRACE(0, "ERROR - Null last update time %s", time.text());
    return abandonService(handle, kServiceMalformedPayload);
  }
  int result = skipTo(handle, &begin_comps_tk);
  if (result == kServiceOk) result = readComponents(handle, components, files, batches);
  if (result == kServiceOk) result = skipTo(handle, &begin_files_tk);
  if (result == kServiceOk) result = readFiles(handle, components, files, batches);
  if (result != kServiceOk) return abandonService(handle, result);
  return endSlmService(handle);
}

int getUnidentifiedList(int mode, SlmList* records, AgentTime scanTime, int last) {
  ServerAddress server;
  if (preferredServer(&server) != kServiceOk) return kServiceFailed;
  SLM_TRACE(2, "SRVCS - Upload to server: %s", server.host);
  HttpHandle* handle = openService(server, kServiceUploadFiles, kCatalogServiceTimeoutSeconds);
  if (handle == nullptr) return kServiceFailed;

  // Scan times go out in milliseconds, always a whole second.
  const std::string time = int32Text(scanTime) + (scanTime != 0 ? "000" : "");
  const char* fields[] = {nullptr, mode == kUploadInventory ? "true" : "false", time.c_str(),
                          last != 0 ? "true" : "false"};
  const std::string agentId = int64Text(agentInt(kAgentId));
  fields[0] = agentId.c_str();
  bool sent = true;
  for (const char* field : fields) {
    sent = sendSlmContent(handle, field, &par_sep_tk, kNoMask) == kContentSent && sent;
  }
  SLM_TRACE(2, "UPLOAD - %d files to send", static_cast<int>(entries(records)));
  sent = sendSlmContent(handle, begin_files_tk.text, nullptr, kNoMask) == kContentSent && sent;
  for (void* item = getNext(records, nullptr); item != nullptr; item = getNext(records, item)) {
    const auto* record = static_cast<const InventoryRecord*>(item);
    sent = sendRecord(handle, *record) && sent;
    SLM_TRACE(2, " UPLOAD file '%s', path '%s', size %d", record->name, record->directory,
              static_cast<int>(record->size));
  }
  sent = sendSlmContent(handle, end_files_tk.text, nullptr, kNoMask) == kContentSent && sent;
  handle = finishRequest(handle, kServiceUploadFiles, sent);
  if (handle == nullptr) return kServiceFailed;
  return endSlmService(handle);
}

int sendInventory(SlmList* records, AgentTime scanTime, int last) {
  return getUnidentifiedList(kUploadInventory, records, scanTime, last);
}

int uploadUnidentifiedList(SlmList* records) {
  return getUnidentifiedList(kUploadUnknownFiles, records, 0, 1);
}

}  // namespace slm
