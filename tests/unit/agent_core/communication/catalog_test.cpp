#include "agent_core/communication/catalog.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "agent_core/cache/lat.h"
#include "agent_core/communication/slm.h"
#include "agent_core/data/inventory_record.h"
#include "agent_core/security_settings.h"
#include "support/service_sandbox.h"

namespace slm {
namespace {

using test::kRequestEnd, test::kRequestTime;

// `text` as a JSON string's contents.
std::string json(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
    }
  }
  return out;
}

class CatalogService : public test::ServiceSandbox {
 protected:
  // Downloads from a server answering with `payload` (the answer's own when empty); describes
  // what came into the lists as "time | id:a1,a2,a3 ... | name[ids] ...".
  int download(const std::string& scenario, int64_t since = 77) {
    serve(scenario);
    int64_t time = since;
    SlmList* components = createList(sizeof(ComponentRecord));
    SlmList* files = createList(sizeof(FileRecord));
    int result = downloadCatalog(&time, components, files);
    got_ = std::to_string(time) + " |";
    for (void* c = getNext(components, nullptr); c != nullptr; c = getNext(components, c)) {
      const auto* record = static_cast<const ComponentRecord*>(c);
      got_ += " " + std::to_string(record->compId) + ":" + std::to_string(record->attributes[0]) +
              "," + std::to_string(record->attributes[1]) + "," +
              std::to_string(record->attributes[2]);
    }
    got_ += " |";
    for (void* f = getNext(files, nullptr); f != nullptr; f = getNext(files, f)) {
      const auto* record = static_cast<const FileRecord*>(f);
      got_ += std::string(" ") + record->name + "[";
      for (int32_t i = 0; i < record->componentCount; ++i)
        got_ += (i ? "," : "") + std::to_string(record->componentIds[i]);
      got_ += "]";
    }
    deleteList(components);
    deleteList(files);
    return result;
  }
  static std::string answering(const std::string& payload) {
    return R"({"require_plugin": false, "services": {"catalog": {"payload": ")" + json(payload) +
           "\"}}}";
  }

  std::string got_;
};

TEST_F(CatalogService, PayloadLinesGiveTheirRecordsAndResults) {
  const std::string comps = "<components>\r\n12|1|0|2\r\n</components>\r\n";
  auto withFiles = [&](const std::string& lines) {
    return "5\r\n" + comps + "<files>\r\n" + lines + "</files>\r\n";
  };
  std::string eighteen = "big|9|0|0|";
  for (int id = 1; id <= 18; ++id) eighteen += std::to_string(id) + "|";
  const struct {
    std::string payload;
    int result;
    std::string got;
    const char* message;
  } cases[] = {
      {withFiles("app|4096|0|0|7|9|\r\napp2|4096|3|-4|7|0|9|\r\n" + eighteen + "\r\n"), kServiceOk,
       "5 | 12:1,0,2 | app[7,9] app2[7,9] big[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16]", ""},
      {"0\r\n" + comps, kServiceMalformedPayload, "0 | |", "ERROR - Null last update time 0"},
      {"5\r\n<components>\r\n12|x|0|2\r\n", kServiceMalformedPayload, "5 | |",
       "ERROR - Bad number 0, string x"},
      {"5\r\n<components>\r\n0|1|1|1\r\n", kServiceMalformedPayload, "5 | |",
       "ERROR - Null component id, string 0"},
      {"5\r\n<components>\r\n12|1|0\r\n", kServiceFailed, "5 | |", ""},
      // The trace writes the line ends the tag and the text hold escaped.
      {"5\r\nno sections\r\n", kServiceFailed, "5 | |",
       "ERROR - '<components>\\r\\n' not found in 'no sections\\r\\n'"},
      {"5\r\n" + comps + "no files\r\n", kServiceFailed, "5 | 12:1,0,2 |",
       "ERROR - '<files>\\r\\n' not found in"},
      // Size and second attribute: malformed; first attribute: failed.
      {withFiles("ok|1|0|0|\r\napp|0|0|0|7|\r\n"), kServiceMalformedPayload, "5 | 12:1,0,2 | ok[]",
       ""},
      {withFiles("app|10|x|0|7|\r\n"), kServiceFailed, "5 | 12:1,0,2 |", ""},
      {withFiles("app|10|0|x|7|\r\n"), kServiceMalformedPayload, "5 | 12:1,0,2 |", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.payload);
    EXPECT_EQ(download(answering(c.payload)), c.result);
    EXPECT_EQ(got_, c.got);
    if (*c.message != '\0') {
      EXPECT_TRUE(traced(c.message)) << trace();
    } else {  // a bad size or first attribute is reported by its result alone
      EXPECT_FALSE(traced("ERROR - ")) << trace();
    }
  }
}

TEST_F(CatalogService, AnswerOverTheCatalogLimitIsRefusedByItsLengthOrItsBytes) {
  const std::string payload =
      "5\r\n<components>\r\n12|1|0|2\r\n</components>\r\n<files>\r\napp|4096|0|0|12|\r\n"
      "</files>\r\n";
  const int64_t length = static_cast<int64_t>(payload.size() + strlen("<response:0,0:ok>\r\n"));
  const std::string over =
      "ERROR - Answer of service 3 over its limit of " + std::to_string(length - 1) + " bytes";
  struct Restore {
    ~Restore() { setSecuritySettings(SecuritySettings{}); }
  } restore;
  const struct {
    int64_t limit;
    std::string length;  // the Content-Length sent; empty: the true one
    int result;
    std::string got, message;
  } cases[] = {
      {length, "", kServiceOk, "5 | 12:1,0,2 | app[12]", ""},
      {length - 1, "", kServiceFailed, "77 | |",
       over + " (" + std::to_string(length) + " announced)\n"},
      {length - 1, "10", kServiceFailed, "77 | |", over + "\n"},  // streamed: cut by its bytes
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    SecuritySettings settings;
    settings.maxCatalogBytes = c.limit;
    setSecuritySettings(settings);
    const std::string lie = c.length.empty() ? "" : R"(, "content_length": ")" + c.length + "\"";
    EXPECT_EQ(download(R"({"require_plugin": false, "services": {"catalog": {"payload": ")" +
                       json(payload) + "\"" + lie + "}}}"),
              c.result);
    EXPECT_EQ(got_, c.got);
    EXPECT_TRUE(c.message.empty() ? !traced("ERROR - ") : traced(c.message)) << trace();
  }
}

TEST_F(CatalogService, ServerCatalogMergesIntoTheCache) {
  ASSERT_EQ(createComponentsCache(), kLatOk);
  const std::string scenario =
      R"({"require_plugin": false, "catalog": {"update_time": 1700000000000,
      "components": [[12, 1, 0, 2], [13, 0, 0, 0]],
      "files": [["App.exe", 4096, 1, 2, [12, 13]], ["tool", 10, 0, 0, [13]]]}})";
  EXPECT_EQ(download(scenario, 0), kServiceOk);
  EXPECT_EQ(got_, "1700000000000 | 12:1,0,2 13:0,0,0 | App.exe[12,13] tool[13]");
  EXPECT_EQ(server_->lastRequestBody("3"), kRequestTime + "1.0\r\n4711\r\n0\r\n" + kRequestEnd);
  expectConforming();

  int64_t time = 0;
  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  ASSERT_EQ(downloadCatalog(&time, components, files), kServiceOk);
  ASSERT_EQ(updateCatalog(components, files), kLatOk);
  deleteList(components);
  deleteList(files);
  FileRecord key{}, found{};
  strcpy(key.name, "app.EXE");
  key.size = 4096;
  ComponentRecord parts[kMaxFileComponents];
  int32_t count = 0;
  ASSERT_EQ(findFileEntry(&key, &found, parts, &count), kLatOk);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(found.attribute1 + 10 * found.attribute2, 21);
  deleteComponentsCache();
}

// The batches a download handed over, as the numbers of components and files in each; the merge
// takes them into the catalog until the one numbered `failingBatch`, which it refuses.
std::vector<std::pair<int32_t, int32_t>> handedOver;
size_t failingBatch = SIZE_MAX;
int mergeBatch(SlmList* components, SlmList* files) {
  handedOver.emplace_back(entries(components), entries(files));
  if (handedOver.size() == failingBatch) return kLatFailed;
  return updateCatalog(components, files);
}

TEST_F(CatalogService, DownloadHandsRecordsOverInBatchesAsTheyCome) {
  ASSERT_EQ(createComponentsCache(), kLatOk);
  std::string payload = "5\r\n<components>\r\n1|0|0|0\r\n2|0|0|0\r\n</components>\r\n<files>\r\n";
  for (int i = 0; i < 7; ++i)
    payload += "f" + std::to_string(i) + "|" + std::to_string(10 + i) + "|0|0|1|\r\n";
  payload += "</files>\r\n";
  for (size_t failing : {SIZE_MAX, size_t{2}}) {
    SCOPED_TRACE(failing);
    ASSERT_EQ(resetComponentsCache(), kLatOk);
    serve(answering(payload));
    handedOver.clear();
    failingBatch = failing;
    int64_t time = 0;
    ListHandle components = makeList(sizeof(ComponentRecord));
    ListHandle files = makeList(sizeof(FileRecord));
    CatalogBatches batches{mergeBatch, 3, 0};
    const int result = downloadCatalogInBatches(&time, components.get(), files.get(), &batches);
    if (failing == SIZE_MAX) {
      EXPECT_EQ(result, kServiceOk);
      EXPECT_EQ(batches.result, 0);
      EXPECT_EQ(handedOver, (std::vector<std::pair<int32_t, int32_t>>{{2, 1}, {0, 3}, {0, 3}}));
      EXPECT_EQ(entries(files.get()), 0);
    } else {
      // The failed merge ends the download; the batch before it stays merged.
      EXPECT_EQ(result, kServiceFailed);
      EXPECT_EQ(batches.result, kLatFailed);
      EXPECT_EQ(handedOver.size(), 2u);
    }
    EXPECT_EQ(getCatalogFilesNumber(), failing == SIZE_MAX ? 7 : 1);
    FileRecord key{}, found{};
    strcpy(key.name, "F0");
    key.size = 10;
    EXPECT_EQ(findFileEntry(&key, &found, nullptr, nullptr), kLatOk);
  }
  deleteComponentsCache();
}

TEST_F(CatalogService, UploadSendsOneMaskedLinePerRecord) {
  serve(R"({"require_plugin": false})");
  InventoryRecord record{};
  strcpy(record.name, "a|b|c");
  record.size = 5000000000;
  strcpy(record.directory, "/usr/bin");
  record.first = 7;
  record.second = 0xFFFFFFFF;
  strcpy(record.text1, "x\r\ny");
  strcpy(record.text2, " ");
  strcpy(record.text4, "t4");
  SlmList* records = createList(sizeof(InventoryRecord));
  ASSERT_EQ(append(records, &record), kListOk);
  EXPECT_EQ(sendInventory(records, 1700000000, 0), kServiceOk);
  EXPECT_EQ(server_->lastRequestBody("7"),
            kRequestTime + "1.0\r\n4711\r\ntrue\r\n1700000000000\r\nfalse\r\n<files>\r\n" +
                "a*b|c|5000000000|/usr/bin|7|-1|x**y| ||t4\r\n</files>\r\n" + kRequestEnd);
  EXPECT_TRUE(traced(" UPLOAD file 'a|b|c', path '/usr/bin', size 705032704"));

  deleteList(records);
  records = createList(sizeof(InventoryRecord));
  EXPECT_EQ(uploadUnidentifiedList(records), kServiceOk);
  EXPECT_EQ(
      server_->lastRequestBody("7"),
      kRequestTime + "1.0\r\n4711\r\nfalse\r\n0\r\ntrue\r\n<files>\r\n</files>\r\n" + kRequestEnd);
  EXPECT_TRUE(traced("UPLOAD - 0 files to send"));
  deleteList(records);
  expectConforming();

  serve(R"({"require_plugin": false, "upload": {"reject_obsolete": true},
            "services": {"upload": {"result": -4}}})");
  records = createList(sizeof(InventoryRecord));
  EXPECT_EQ(sendInventory(records, 1700000000, 1), kServiceObsoleteScan);
  deleteList(records);
}

}  // namespace
}  // namespace slm
