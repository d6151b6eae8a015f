// Damaged configuration and cache files: documented results, terminated texts, no open descriptor.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/uat.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/hash_table.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::field, test::le32, test::le64;

size_t openDescriptors() {
  auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class DamagedFile : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    fds_ = openDescriptors();
  }
  void TearDown() override {
    EXPECT_EQ(openDescriptors(), fds_) << "a descriptor was left open";
    clearAgentInfo();
    AgentSandbox::TearDown();
  }
  std::string randomBytes(size_t size) {
    std::string out(size, '\0');
    for (char& c : out) c = static_cast<char>(rng_());
    return out;
  }
  // Case i: cut at i / 2 (even i) or zero/set the byte there (odd); then random bytes or cases.
  std::string variant(const std::string& valid, size_t i) {
    if (i >= 2 * valid.size() && rng_() % 2 == 0) return randomBytes(rng_() % (valid.size() + 16));
    if (i >= 2 * valid.size()) i = rng_() % (2 * valid.size());
    std::string data = valid.substr(0, i % 2 == 0 ? i / 2 : valid.size());
    if (i % 2 == 1) data[i / 2] = data[i / 2] != 0 ? '\0' : static_cast<char>(1 + rng_() % 255);
    return data;
  }
  static void walkAll() {  // the walk with each filter meets every record at most once
    int records = countScopeServers(0) + countScopeServers(1) + countScopeServers(2);
    for (int filter : {kAnyServer, kActiveServers, kNotRespondingServers}) {
      ServerHandle handle = nullptr;
      ServerInfo info{};
      for (int steps = 1; getNextServer(&handle, filter, &info) == kSrvsOk; ++steps)
        ASSERT_LE(steps, records) << "the walk runs in a circle";
    }
  }

  std::mt19937 rng_{20240611};
  size_t fds_ = 0;
};

TEST_F(DamagedFile, ConfigurationReaderKeepsItsResultsAndBounds) {
  const std::string pieces[] = {"agentid", "tag", "=",  " ", "\t",
                                "\r\n",    "\n",  "\r", "#", std::string(1500, 'v')};
  for (int i = 0; i < 1500; ++i) {
    std::string text;
    for (unsigned n = rng_() % 40; n > 0; --n)
      text += rng_() % 4 == 0 ? randomBytes(1 + rng_() % 8) : pieces[rng_() % std::size(pieces)];
    deleteConfigurationVariables();
    root_.writeFile("etc/kvdagent.ini", text);
    int result = loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str());
    EXPECT_TRUE(result == kConfigurationLoaded || result == kConfigurationEmptyValue ||
                result == kConfigurationRefused);
    for (const char* key : kConfigurationKeys) {  // terminated, cut, one line, no trailing blanks
      std::string value(1 + rng_() % 300, 'X');
      if (getConfigurationValue(key, value.data(), value.size()) != kConfigurationValueFound)
        continue;
      std::string text(value.c_str());
      EXPECT_TRUE(value.back() == '\0' && text.size() <= kConfigurationValueChars &&
                  text.find('\n') == std::string::npos &&
                  (text.empty() || strchr(" \t\r", text.back()) == nullptr));
    }
  }
}

TEST_F(DamagedFile, ServerFileCutOrChangedLoadsWalksAndStores) {
  std::string valid =
      le32(1) + le32(2) + le32(1000) + le32(0) + field("alpha", 256) + le32(1) + le32(1);
  for (uint32_t scope : {1, 2}) {  // d1 (not responding) and e1 (active)
    std::string host = scope == 1 ? "d1" : "e1";
    valid += le32(0) + field(host, 256) + field("/" + host, 256) + le32(9000) + le32(1) + le32(0) +
             le32(scope - 1) + le32(1) + le32(scope) + std::string(12, '\0');
  }
  const ServerInfo configured{.address = {.host = "alpha", .path = "", .port = 0},
                              .securityLevel = 0};
  for (size_t i = 0; i < 2 * valid.size() + 300 && !HasFailure(); ++i) {
    std::string data = variant(valid, i);
    bool header = data.size() >= kCacheHeaderSize && data.compare(0, 8, valid, 0, 8) == 0;
    remove(cachePath("server.dat").c_str());
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    writeCacheFile("server.dat", data);
    int loaded = loadServerListFile();
    int records = countScopeServers(kScopeDivision) + countScopeServers(kScopeEnterprise);
    EXPECT_TRUE(loaded == kSrvsOk || (loaded == kSrvsFailed && (header || records == 0)));
    EXPECT_EQ(test::fileExists(cachePath("server.dat")), header || data.size() < 8);  // bad: gone
    EXPECT_EQ(getSrvsCacheUpdateTime(),
              header ? getFixed32(reinterpret_cast<const uint8_t*>(&data[8])) : 0u);
    const int kept = data.size() < 280 ? 0 : static_cast<int>((data.size() - 280) / 552);
    EXPECT_TRUE(i % 2 == 1 || i >= 2 * valid.size() || records == kept) << i;  // cut: kept before
    walkAll();
    deleteServersCache();
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    EXPECT_EQ(countScopeServers(kScopeDivision) + countScopeServers(kScopeEnterprise), records);
    EXPECT_EQ(updateServerCache(nullptr, nullptr, nullptr), kSrvsOk);
    walkAll();
    deleteServersCache();
  }
}

TEST_F(DamagedFile, PluginFileAnswersWithItsResults) {
  loadConfiguration("agentid=1\ndivisionid=2\ntag=t\ncustomer=c\n");
  ASSERT_EQ(initAgentInfo(), kAgentValueOk);
  ASSERT_EQ(storePluginData(), kPluginStored);
  std::string valid = readCacheFile(kPluginDatName);
  valid.replace(kPluginDriverNameOffset, kAgentTextSize, kAgentTextSize, 'D');  // no terminator
  for (size_t i = 0; i < 2 * valid.size() + 400; ++i) {
    std::string data = variant(valid, i);
    bool readable = data.size() >= kPluginDatSize && data.compare(0, 8, valid, 0, 8) == 0;
    bool same = readable && data.compare(kPluginTupleOffset, kSystemTupleSize, valid,
                                         kPluginTupleOffset, kSystemTupleSize) == 0;
    writeCacheFile(kPluginDatName, data);
    const int expected = !readable ? kTupleUnreadable : same ? kTupleMatches : kTupleDiffers;
    ASSERT_EQ(isToBeUpdatedSlmTuple(), expected) << i;
    std::string name(1 + rng_() % 300, 'X');
    ASSERT_EQ(getAgentCharValue(kAgentDriverName, name.data(), name.size()), kAgentValueOk);
    EXPECT_TRUE(name.back() == '\0' && strlen(name.c_str()) <= kAgentTextSize);
  }
}

// A catalog (with the usual bucket count: the count plays no part here) or unknown files table
// built from any file loads, answers every lookup within its
// records, stores and reads back what it holds.
TEST_F(DamagedFile, CatalogAndUnknownFilesCutOrChangedLoadAndStore) {
  loadConfiguration("server=alpha\n");
  root_.makeDirs("var/qsam/log");
  setTraceLevel(0);  // no dump of the table after every entry
  const ServerInfo configured{.address = {.host = "alpha", .path = "", .port = 0},
                              .securityLevel = 0};
  ASSERT_EQ(createServersCache(&configured), kSrvsOk);
  const std::string header = le64(1000) + field("alpha", 256);
  std::string catalog = le32(1) + le32(2) + header + le32(2);
  for (int id : {1, 2}) catalog += le64(id) + le64(0) + test::bytes({1, 2, 3, 0});
  for (int i = 0; i < 3; ++i) {  // the last file lists 16 ids, some of them unknown
    catalog += field("file" + std::to_string(i), 256) + le64(10 + i) + le32(0) + le32(0) + le32(0);
    for (int slot = 0; slot < 16; ++slot) catalog += le64(i == 2 || slot < i ? slot + 1 : 0);
    catalog += le32(i == 2 ? 16 : i);
  }
  std::string unknown = le32(1) + le32(3) + header;
  for (int i = 0; i < 3; ++i)
    unknown += field("prog" + std::to_string(i), 256) + le64(20 + i) + std::string(12, '\0') +
               field("/opt/x", 404) + le32(1000 + i);

  for (const std::string* valid : {&catalog, &unknown}) {
    const bool isCatalog = valid == &catalog;
    const char* name = isCatalog ? kCatalogFileName : kUatFileName;
    for (size_t i = 0; i < 2 * valid->size() + 300 && !HasFailure(); i += 1 + rng_() % 7) {
      std::string data = variant(*valid, i);
      writeCacheFile(name, data);
      int32_t held = 0;
      if (isCatalog) {
        ASSERT_EQ(createComponentsCacheWithSlots(64), kLatOk);
        for (int n = 0; n < 4; ++n) {  // every lookup stays within its record
          FileRecord key{}, found{};
          snprintf(key.name, sizeof key.name, "FILE%d", n);
          key.size = 10 + n;
          ComponentRecord parts[kMaxFileComponents];
          int32_t count = -1;
          int result = findFileEntry(&key, &found, parts, &count);
          ASSERT_TRUE(result == kLatNotFound || (result == kLatOk && count >= 0 && count <= 16));
          held += result == kLatOk;
        }
        remove(cachePath(name).c_str());  // stored as a new file, see writeFile
        deleteComponentsCache();
      } else {
        ASSERT_EQ(createUATCache(), kUatOk);
        held = getUnknownFilesNumber();
        ASSERT_EQ(printUATCache("dump.log", 0), kUatOk);  // every text terminated
        remove(cachePath(name).c_str());
        deleteUATCache();
      }
      // What was held is stored whole and comes back.
      std::string stored = readCacheFile(name);
      ASSERT_EQ(stored.compare(0, 8, valid->substr(0, 8)), 0) << i;
      if (isCatalog) {
        ASSERT_EQ(createComponentsCacheWithSlots(64), kLatOk);
        EXPECT_LE(getCatalogFilesNumber(), 3);
        remove(cachePath(name).c_str());
        deleteComponentsCache();
      } else {
        ASSERT_EQ(createUATCache(), kUatOk);
        EXPECT_EQ(getUnknownFilesNumber(), held) << i;
        remove(cachePath(name).c_str());
        deleteUATCache();
      }
      EXPECT_EQ(readCacheFile(name), stored) << i;
    }
  }
  deleteServersCache();
}

}  // namespace
}  // namespace slm
