// The bulk transfers with the preferred server: the catalog download, which brings the components
// and files that executables are identified by, and the upload of file records, for the unknown
// executables and for the disk inventory. Run on the calling command's or inventory thread.
#pragma once

#include <cstdint>

#include "agent_core/data/slm_time.h"
#include "agent_core/support/slm_list.h"

namespace slm {

// Both transfers wait this long for each read of the answer.
constexpr int kCatalogServiceTimeoutSeconds = 180;

// Asks for the catalog changes since *lastUpdateTime, which is then replaced by the server's new
// time, and appends the components (ComponentRecord) and files (FileRecord) to the lists; the
// caller merges them. The result of the answer's trailer (kServiceOk ...); kServiceMalformedPayload
// for a bad number, a zero time, id or size, or a bad second file attribute; kServiceFailed for
// anything else, a bad first file attribute included. After a failure the lists may hold part of
// the answer.
[[nodiscard]] int downloadCatalog(int64_t* lastUpdateTime, SlmList* components, SlmList* files);

constexpr int kUploadUnknownFiles = 2;
constexpr int kUploadInventory = 3;

// Sends the InventoryRecord list `records`: with kUploadInventory one packet of the inventory of
// `scanTime`, `last` non-zero on the final packet; with kUploadUnknownFiles the unknown files.
// The result of the answer's trailer, or kServiceFailed.
[[nodiscard]] int getUnidentifiedList(int mode, SlmList* records, AgentTime scanTime, int last);
[[nodiscard]] int sendInventory(SlmList* records, AgentTime scanTime, int last);
[[nodiscard]] int uploadUnidentifiedList(SlmList* records);

}  // namespace slm
