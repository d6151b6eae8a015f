#include "agent_core/cache/lat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/support/hash_table.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::field, test::le32, test::le64;

constexpr int64_t kUpdateTime = 1700000000000;

ComponentRecord component(int64_t id, std::initializer_list<uint8_t> attributes = {0, 0, 0}) {
  ComponentRecord record{};
  record.compId = id;
  memcpy(record.attributes, attributes.begin(), 3);
  return record;
}

FileRecord file(const std::string& name, int64_t size, std::initializer_list<int64_t> ids = {}) {
  FileRecord record{};
  name.copy(record.name, sizeof record.name - 1);
  record.size = size;
  for (int64_t id : ids) record.componentIds[record.componentCount++] = id;
  return record;
}

using List = std::unique_ptr<SlmList, void (*)(SlmList*)>;
template <typename Record>
List listOf(std::initializer_list<Record> records) {
  List list(createList(sizeof(Record)), deleteList);
  for (const Record& record : records) EXPECT_EQ(append(list.get(), &record), kListOk);
  return list;
}

// One component record and one file record of "catalog.dat", written out from the layouts.
std::string componentBytes(int64_t id, int a1, int a2, int a3) {
  return le64(id) + le64(0) + test::bytes({a1, a2, a3, 0});
}
std::string fileBytes(const std::string& name, int64_t size, int32_t a1, int32_t a2,
                      std::initializer_list<int64_t> ids) {
  std::string out = field(name, 256) + le64(size) + le32(a1) + le32(a2) + le32(0);
  for (int64_t id : ids) out += le64(id);
  return out + std::string(8 * (16 - ids.size()), '\0') + le32(static_cast<uint32_t>(ids.size()));
}
std::string header(int64_t time, const std::string& server = "alpha") {
  return le32(1) + le32(2) + le64(time) + field(server, 256);
}

class CatalogCache : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    loadConfiguration("server=alpha\n");
    ServerInfo configured{};
    strcpy(configured.address.host, "alpha");
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
  }
  void TearDown() override {
    if (created_) deleteComponentsCache();
    deleteServersCache();
    AgentSandbox::TearDown();
  }
  // A cache as at start-up, reading "catalog.dat"; a cache that exists is stored first.
  void create(int (*make)(int32_t) = createComponentsCacheWithSlots,
              int32_t size = kCatalogFileSlots) {
    if (created_) deleteComponentsCache();
    ASSERT_EQ(make(size), kLatOk);
    created_ = true;
  }
  // The catalog's record for name and size, "" when unknown; with its components' ids.
  std::string lookup(const std::string& name, int64_t size) {
    FileRecord key = file(name, size), found{};
    ComponentRecord components[kMaxFileComponents] = {};  // no slot left over from a lookup before
    int32_t count = -1;
    if (findFileEntry(&key, &found, components, &count) != kLatOk) return "";
    std::string out = found.name;
    for (int32_t i = 0; i < count; ++i) out += " " + std::to_string(components[i].compId);
    return out;
  }

  bool created_ = false;
};

TEST_F(CatalogCache, StoresGoldenBytesAndReadsThemBack) {
  create();
  setLATLastUpdateTime(kUpdateTime);
  FileRecord app = file("app", 4096, {12, 99});
  app.attribute1 = 5;
  app.attribute2 = -1;
  ASSERT_EQ(updateCatalog(listOf({component(12, {1, 0, 2})}).get(), listOf({app}).get()), kLatOk);
  ASSERT_EQ(storeCatalog(), kLatOk);
  const std::string expected = header(kUpdateTime) + le32(1) + componentBytes(12, 1, 0, 2) +
                               fileBytes("app", 4096, 5, -1, {12, 99});
  EXPECT_EQ(readCacheFile(kCatalogFileName), expected);
  EXPECT_TRUE(traced("LAT - Data written into file " + cachePath(kCatalogFileName)));

  create();
  EXPECT_TRUE(traced("LAT - The catalog has been read from file " + cachePath(kCatalogFileName) +
                     ", 1 comps, 1 files"));
  EXPECT_EQ(getLATLastUpdateTime(), kUpdateTime);
  // Component 99 is not in the catalog: only 12 comes back.
  EXPECT_EQ(lookup("APP", 4096), "app 12");
  ComponentRecord found{};
  ASSERT_EQ(getComponentEntry(12, &found), kLatOk);
  EXPECT_EQ(found.attributes[0] + 10 * found.attributes[2], 21);
  EXPECT_EQ(getComponentEntry(99, &found), kLatNotFound);
  deleteComponentsCache();
  created_ = false;
  EXPECT_EQ(readCacheFile(kCatalogFileName), expected) << "a start and stop changed the file";
}

TEST_F(CatalogCache, FileIsItsSizeAndNameWithoutCase) {
  create();
  ASSERT_EQ(updateCatalog(listOf<ComponentRecord>({}).get(),
                          listOf({file("FOO", 10), file("foo", 11), file("bar", 10)}).get()),
            kLatOk);
  EXPECT_EQ(lookup("foo", 10), "FOO");
  EXPECT_EQ(lookup("Foo", 11), "foo");
  EXPECT_EQ(lookup("bar", 10), "bar");
  EXPECT_EQ(lookup("foo", 12), "");
  EXPECT_EQ(lookup("fo", 10), "");
  FileRecord key = file("foo", 10), found{};
  EXPECT_EQ(findFileEntry(&key, &found, nullptr, nullptr), kLatOk);
}

TEST_F(CatalogCache, MergeReplacesWholeEntriesAndNeverRemoves) {
  create();
  setLATLastUpdateTime(kUpdateTime);
  ASSERT_EQ(updateCatalog(listOf({component(1), component(2), component(3)}).get(),
                          listOf({file("tool", 5, {1, 2}), file("other", 6, {3})}).get()),
            kLatOk);
  EXPECT_TRUE(traced(" - New file tool added to LAT, components number 2, first 1, size 5"));
  ASSERT_EQ(
      updateCatalog(listOf({component(2, {9, 9, 9})}).get(), listOf({file("TOOL", 5, {3})}).get()),
      kLatOk);
  EXPECT_TRUE(traced(" - Existing component 2 found in LAT"));
  EXPECT_TRUE(traced(" - Existing file TOOL in LAT"));
  EXPECT_EQ(lookup("tool", 5), "TOOL 3");  // the latest list, not a union
  EXPECT_EQ(lookup("other", 6), "other 3");
  ComponentRecord found{};
  ASSERT_EQ(getComponentEntry(2, &found), kLatOk);
  EXPECT_EQ(found.attributes[1], 9);
  // A component the catalog does not hold is left out: those found fill the slots from the first.
  ASSERT_EQ(
      updateCatalog(listOf<ComponentRecord>({}).get(), listOf({file("partial", 7, {77, 3})}).get()),
      kLatOk);
  EXPECT_EQ(lookup("partial", 7), "partial 3");

  ASSERT_EQ(storeCatalog(), kLatOk);
  const std::string before = readCacheFile(kCatalogFileName);
  ASSERT_EQ(updateCatalog(listOf<ComponentRecord>({}).get(), listOf<FileRecord>({}).get()), kLatOk);
  ASSERT_EQ(storeCatalog(), kLatOk);
  EXPECT_EQ(readCacheFile(kCatalogFileName), before);

  // A reset empties both tables and the time; what is stored then is an empty catalog.
  ASSERT_EQ(resetComponentsCache(), kLatOk);
  EXPECT_EQ(lookup("tool", 5), "");
  EXPECT_EQ(getLATLastUpdateTime(), 0);
  ASSERT_EQ(storeCatalog(), kLatOk);
  EXPECT_EQ(readCacheFile(kCatalogFileName), header(0) + le32(0));
  ASSERT_EQ(updateCatalog(listOf({component(4)}).get(), listOf({file("new", 1, {4})}).get()),
            kLatOk);
  EXPECT_EQ(lookup("new", 1), "new 4");
}

TEST_F(CatalogCache, LoadKeepsWhatTheFileRulesAllow) {
  const std::string components = le32(2) + componentBytes(1, 0, 0, 0) + componentBytes(2, 0, 0, 0);
  const std::string files = fileBytes("a", 1, 0, 0, {1}) + fileBytes("b", 2, 0, 0, {2});
  const std::string path = cachePath(kCatalogFileName);
  const std::string rejected = "WARNING - The version in file " + path +
                               " is not supported or the runtime server has been changed.";
  struct Case {
    const char* what;
    std::string content;
    const char* expectA;  // lookup of a, then b
    const char* expectB;
    int64_t time;
    bool kept;
    std::string message;
  } cases[] = {
      {"whole", header(kUpdateTime) + components + files, "a 1", "b 2", kUpdateTime, true,
       "2 comps, 2 files"},
      {"cut in the last file record", header(kUpdateTime) + components + files.substr(0, 500),
       "a 1", "", kUpdateTime, true, "2 comps, 1 files"},
      {"no components", header(kUpdateTime) + le32(0) + files, "a", "b", 0, true,
       "0 comps, 2 files"},
      {"cut in a component", header(kUpdateTime) + components.substr(0, 30), "", "", 0, true,
       "LAT - no Catalog file " + path},
      {"cut before the count", header(kUpdateTime), "", "", 0, true,
       "LAT - no Catalog file " + path},
      {"another server", header(kUpdateTime, "beta") + components + files, "", "", 0, false,
       "CACHE - Server in configuration file different from the one in file " + path},
      {"another version", le32(1) + le32(1) + header(kUpdateTime).substr(8) + components + files,
       "", "", 0, false, rejected},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (created_) {
      deleteComponentsCache();
      created_ = false;
    }
    writeCacheFile(kCatalogFileName, c.content);
    restartTrace();
    create();
    EXPECT_EQ(lookup("a", 1), c.expectA);
    EXPECT_EQ(lookup("b", 2), c.expectB);
    EXPECT_EQ(getLATLastUpdateTime(), c.time);
    EXPECT_EQ(test::fileExists(path), c.kept);
    EXPECT_TRUE(traced(c.message));
  }
}

// The file records stored after a run of merges into the table the catalog kept before its entries
// were compact: 408-byte records in a hash table, a merge replacing the record of the same file
// whole or adding it, the store walking the table's arena.
std::string storedAsWholeRecords(const std::vector<std::vector<FileRecord>>& merges) {
  HashTable* table = initHashTable(sizeof(FileRecord), kHashBuckets, 1);
  for (const std::vector<FileRecord>& merge : merges) {
    for (const FileRecord& record : merge) {
      void* stored = findHtElement(table, record.size, &record, compareFiles);
      if (stored == nullptr) stored = addHtElement(table, record.size);
      memcpy(stored, &record, sizeof record);
    }
  }
  std::string out;
  uint8_t bytes[kFileRecordSize];
  for (void* value = findHtNextElement(table, 1); value != nullptr;
       value = findHtNextElement(table, 0)) {
    encodeFileRecord(*static_cast<const FileRecord*>(value), bytes);
    out.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
  }
  deleteHashTable(table);
  return out;
}

TEST_F(CatalogCache, CompactEntriesStoreTheBytesOfWholeRecords) {
  // Same-size files, names of every length around a word, files whose component lists change
  // between one id, none and many (shared with other files or not), names that change case, and
  // records only a damaged file holds: counts beyond the ids, ids beyond the count, a negative
  // count. The index starts small enough to grow several times on the way.
  std::vector<std::vector<FileRecord>> merges(3);
  for (int i = 0; i < 600; ++i) {
    std::string name = "prog" + std::to_string(i) + std::string(static_cast<size_t>(i % 19), 'x');
    FileRecord record = file(name, 1000 + (i % 7) * 101 + (i % 3), {});
    for (int id = 0; id < i % 4; ++id)
      record.componentIds[record.componentCount++] = 1 + id + i % 2;
    record.attribute1 = i;
    record.attribute2 = -i;
    merges[0].push_back(record);
  }
  FileRecord longest = file(std::string(kFileNameSize - 1, 'L'), 77, {5});
  FileRecord countBeyondIds = file("count-beyond", 78, {5, 6});
  countBeyondIds.componentCount = 20;
  FileRecord idsBeyondCount = file("ids-beyond", 79, {5});
  idsBeyondCount.componentIds[9] = 9;
  FileRecord negativeCount = file("negative", 80, {});
  negativeCount.componentCount = -1;
  FileRecord zeroId = file("zero-id", 81, {0});
  merges[0].insert(merges[0].end(),
                   {longest, countBeyondIds, idsBeyondCount, negativeCount, zeroId});
  merges[1] = {file("PROG3xxx", 1000 + 3 * 101, {1, 2, 3}), file("prog4XXXX", 1000 + 4 * 101 + 1),
               file("new", 5, {7}), file(std::string(kFileNameSize - 1, 'l'), 77, {})};
  merges[2] = {file("prog3XXX", 1000 + 3 * 101, {4}),
               file("PROG5XXXXX", 1000 + 5 * 101 + 2, {5, 6})};

  create(createComponentsCacheWithSlots, 16);
  for (const std::vector<FileRecord>& merge : merges) {
    List files(createList(sizeof(FileRecord)), deleteList);
    for (const FileRecord& record : merge) ASSERT_EQ(append(files.get(), &record), kListOk);
    ASSERT_EQ(updateCatalog(listOf({component(1)}).get(), files.get()), kLatOk);
  }
  EXPECT_EQ(lookup("PROG3XXX", 1000 + 3 * 101), "prog3XXX");
  ASSERT_EQ(storeCatalog(), kLatOk);
  const std::string stored = readCacheFile(kCatalogFileName);
  const std::string records = storedAsWholeRecords(merges);
  EXPECT_EQ(records.size(), 606 * kFileRecordSize);
  ASSERT_GT(stored.size(), kCatalogRecordsOffset + kComponentRecordSize);
  EXPECT_TRUE(
      stored.compare(kCatalogRecordsOffset + kComponentRecordSize, std::string::npos, records) == 0)
      << "the stored file records differ from the whole records'";
  // Loaded in batches and stored again, the file comes out the same.
  create();
  deleteComponentsCache();
  created_ = false;
  EXPECT_EQ(readCacheFile(kCatalogFileName), stored);
}

TEST_F(CatalogCache, LoadMergesBatchesAndDropsThemAllOnAFault) {
  // More components and files than a batch holds; then the same with the last component cut, after
  // a batch of components was merged.
  const int32_t components = kCatalogBatchRecords + 10, files = 2 * kCatalogBatchRecords + 5;
  std::string componentPart = le32(static_cast<uint32_t>(components));
  for (int32_t id = 1; id <= components; ++id) componentPart += componentBytes(id, 0, 0, 0);
  std::string filePart;
  for (int32_t i = 0; i < files; ++i)
    filePart += fileBytes("f" + std::to_string(i), 10 + i, 0, 0, {i + 1});
  writeCacheFile(kCatalogFileName, header(kUpdateTime) + componentPart + filePart);
  restartTrace();
  create();
  EXPECT_TRUE(
      traced(", " + std::to_string(components) + " comps, " + std::to_string(files) + " files"));
  EXPECT_EQ(getCatalogFilesNumber(), files);
  EXPECT_EQ(getCatalogComponentsNumber(), components);
  EXPECT_EQ(lookup("F0", 10), "f0 1");
  EXPECT_EQ(lookup("f" + std::to_string(files - 1), 10 + files - 1),
            "f" + std::to_string(files - 1));  // its id is not a component
  EXPECT_EQ(getLATLastUpdateTime(), kUpdateTime);
  deleteComponentsCache();
  created_ = false;

  writeCacheFile(kCatalogFileName,
                 header(kUpdateTime) + componentPart.substr(0, componentPart.size() - 1));
  create();
  EXPECT_EQ(getCatalogComponentsNumber(), 0);
  ComponentRecord found{};
  EXPECT_EQ(getComponentEntry(1, &found), kLatNotFound);
  EXPECT_EQ(getLATLastUpdateTime(), 0);
}

TEST_F(CatalogCache, LookupsRunBesideMergesAndStores) {
  create();
  ASSERT_EQ(updateCatalog(listOf({component(1)}).get(), listOf({file("seen", 7, {1})}).get()),
            kLatOk);
  setTraceLevel(0);
  std::thread merger([] {
    for (int i = 0; i < 200; ++i) {
      List files = listOf({file("f" + std::to_string(i), 7, {1})});
      EXPECT_EQ(updateCatalog(listOf<ComponentRecord>({}).get(), files.get()), kLatOk);
      if (i % 50 == 0) {
        EXPECT_EQ(storeCatalog(), kLatOk);
      }
    }
  });
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(lookup("SEEN", 7), "seen 1");
  merger.join();
  EXPECT_EQ(lookup("f199", 7), "f199 1");
}

}  // namespace
}  // namespace slm
