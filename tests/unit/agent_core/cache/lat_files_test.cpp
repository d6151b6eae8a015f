#include "agent_core/cache/lat_files.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace slm {
namespace {

FileRecord file(const std::string& name, int64_t size, int64_t id = 0) {
  FileRecord record{};
  name.copy(record.name, sizeof record.name - 1);
  record.size = size;
  if (id != 0) {
    record.componentIds[0] = id;
    record.componentCount = 1;
  }
  return record;
}

struct TableDeleter {
  void operator()(CatalogFiles* files) const { deleteCatalogFiles(files); }
};
using Table = std::unique_ptr<CatalogFiles, TableDeleter>;

// The name of the entry `key` finds, "" when none.
std::string found(const CatalogFiles* files, const FileRecord& key) {
  const CompactFile* entry = findCatalogFile(files, key);
  if (entry == nullptr) return "";
  FileRecord record;
  expandCatalogFile(entry, &record);
  return record.name;
}

TEST(CatalogFiles, NamesMatchIgnoringTheCaseOfAsciiLettersOnly) {
  const std::string longName(kFileNameSize - 1, 'Q');
  const struct {
    std::string stored, key;
    bool same;
  } cases[] = {
      {"abcdefgh", "ABCDEFGH", true},  // one word
      {"abcdefghi", "AbCdEfGhI", true},
      {"zZaA", "ZzAa", true},
      {"Setup-2.7.EXE", "setup-2.7.exe", true},
      {longName, std::string(kFileNameSize - 1, 'q'), true},
      {"", "", true},
      // The neighbours of A-Z and a-z, and letters outside ASCII, are not letters here.
      {"a@z[b", "a`z[b", false},
      {"prog[1]", "prog{1]", false},
      {"x^_", "x~\x7f", false},
      {"\xC1-app", "\xE1-app", false},
      {"abcdefgh", "abcdefgi", false},
      {longName, longName.substr(0, 254) + "R", false},
      {"abc", "ab", false},
      {"ab", "abc", false},
      {"abcdefgh", "abcdefgh\x01", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored + " / " + c.key);
    Table files(newCatalogFiles(4));
    ASSERT_NE(files, nullptr);
    ASSERT_EQ(putCatalogFile(files.get(), file(c.stored, 10)), kCatalogFileAdded);
    EXPECT_EQ(found(files.get(), file(c.key, 10)), c.same ? c.stored : "");
    EXPECT_EQ(found(files.get(), file(c.key, 11)), "");
    EXPECT_EQ(putCatalogFile(files.get(), file(c.key, 10)),
              c.same ? kCatalogFileReplaced : kCatalogFileAdded);
  }
}

TEST(CatalogFiles, GrowsFromOneSlotAndWalksInTheOrderFilesCameIn) {
  // Enough long names to fill several blocks; few sizes, so that many files share one.
  Table files(newCatalogFiles(1));
  ASSERT_NE(files, nullptr);
  std::vector<std::string> order;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 12000; ++i) {
      const std::string name = "program-" + std::to_string(i) + std::string(24, 'n');
      // The second round changes the case and the component of every third file.
      if (round == 1 && i % 3 != 0) continue;
      const std::string stored = round == 0 ? name : "PROGRAM" + name.substr(7);
      ASSERT_EQ(putCatalogFile(files.get(), file(stored, i % 50 + 1, round + 1)),
                round == 0 ? kCatalogFileAdded : kCatalogFileReplaced);
      if (round == 0) order.push_back(name);
    }
  }
  ASSERT_EQ(catalogFilesCount(files.get()), 12000);
  CatalogFilesWalk walk{};
  FileRecord record;
  size_t at = 0;
  for (; nextCatalogFile(files.get(), &walk, &record); ++at) {
    ASSERT_LT(at, order.size());
    const bool replaced = at % 3 == 0;
    ASSERT_EQ(record.name, replaced ? "PROGRAM" + order[at].substr(7) : order[at]);
    ASSERT_EQ(record.size, static_cast<int64_t>(at % 50 + 1));
    ASSERT_EQ(record.componentIds[0], replaced ? 2 : 1);
  }
  EXPECT_EQ(at, order.size());
  EXPECT_EQ(found(files.get(), file(order[11999], 11999 % 50 + 1)), order[11999]);

  resetCatalogFiles(files.get());
  EXPECT_EQ(catalogFilesCount(files.get()), 0);
  walk = CatalogFilesWalk{};
  EXPECT_FALSE(nextCatalogFile(files.get(), &walk, &record));
  EXPECT_EQ(found(files.get(), file(order[0], 1)), "");
  ASSERT_EQ(putCatalogFile(files.get(), file(order[0], 1)), kCatalogFileAdded);
  EXPECT_EQ(found(files.get(), file(order[0], 1)), order[0]);
}

}  // namespace
}  // namespace slm
