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

// How a download hands its records over as they come: whenever the two lists hold `records`
// records together, `merge` (the catalog's updateCatalog) takes them and the lists are emptied.
struct CatalogBatches {
  int (*merge)(SlmList* components, SlmList* files);  // 0 when the records were taken
  int32_t records;
  int result;  // 0, or the result of the merge that failed
};
// downloadCatalog with the records handed to `batches` as they are parsed, so that a large catalog
// never stands whole in the lists; what is left in them when the answer ends is the caller's. Each
// merge runs between two reads of the answer, never across one. A merge that fails ends the
// download with kServiceFailed and its result in batches->result. Batches merged before a failure
// stay merged: the caller keeps its last update time, and the next download brings them again.
[[nodiscard]] int downloadCatalogInBatches(int64_t* lastUpdateTime, SlmList* components,
                                           SlmList* files, CatalogBatches* batches);

constexpr int kUploadUnknownFiles = 2;
constexpr int kUploadInventory = 3;

// Sends the InventoryRecord list `records`: with kUploadInventory one packet of the inventory of
// `scanTime`, `last` non-zero on the final packet; with kUploadUnknownFiles the unknown files.
// The result of the answer's trailer, or kServiceFailed.
[[nodiscard]] int getUnidentifiedList(int mode, SlmList* records, AgentTime scanTime, int last);
[[nodiscard]] int sendInventory(SlmList* records, AgentTime scanTime, int last);
[[nodiscard]] int uploadUnidentifiedList(SlmList* records);

}  // namespace slm
