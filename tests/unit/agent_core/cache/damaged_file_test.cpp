// Damaged and hostile input for the configuration reader and the cache files: random bytes, valid
// files cut at every offset or with one byte changed, over-long lines, NULs. Whatever the input,
// results stay among the documented codes, texts stay terminated and no descriptor is left open.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/support/bytes.h"
#include "unit/agent_core/cache/cache_sandbox.h"

namespace slm {
namespace {

using test::bytes;
using test::field;
using test::le32;

class DamagedFile : public test::CacheSandbox {
 protected:
  void SetUp() override {
    CacheSandbox::SetUp();
    fds_ = openDescriptors();
  }
  void TearDown() override {
    EXPECT_EQ(openDescriptors(), fds_) << "a descriptor was left open";
    clearAgentInfo();
    CacheSandbox::TearDown();
  }
  static size_t openDescriptors() {
    auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }
  std::string randomBytes(size_t size) {
    std::string out(size, '\0');
    for (char& c : out) c = static_cast<char>(rng_() & 0xFF);
    return out;
  }
  // `valid` cut at a random offset, with one byte changed, or replaced by random bytes.
  std::string damaged(const std::string& valid) {
    std::string out = valid;
    switch (rng_() % 3) {
      case 0:
        out.resize(rng_() % (valid.size() + 1));
        break;
      case 1:
        out[rng_() % out.size()] ^= static_cast<char>(1 + rng_() % 255);
        break;
      default:
        out = randomBytes(rng_() % (valid.size() + 16));
    }
    return out;
  }

  // Loads `text` as the configuration and checks every value that came out of it; returns the
  // result and leaves the number of keys found in `found_`.
  int loadText(const std::string& text) {
    deleteConfigurationVariables();
    root_.writeFile("etc/kvdagent.ini", text);
    int result = loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str());
    EXPECT_TRUE(result == kConfigurationLoaded || result == kConfigurationRefused ||
                result == kConfigurationEmptyValue)
        << result;
    found_ = 0;
    for (const char* key : kConfigurationKeys) {
      std::string value(512, 'X');
      if (getConfigurationValue(key, value.data(), value.size()) != kConfigurationValueFound) {
        continue;
      }
      ++found_;
      std::string text(value.c_str());
      EXPECT_LE(text.size(), kConfigurationValueChars) << key;
      EXPECT_EQ(text.find('\n'), std::string::npos) << key;
      EXPECT_TRUE(text.empty() || strchr(" \t\r", text.back()) == nullptr) << key;
      size_t size = 1 + rng_() % 40;
      std::string small(size, 'X');
      EXPECT_EQ(getConfigurationValue(key, small.data(), size), kConfigurationValueFound);
      EXPECT_EQ(small[size - 1], '\0');
      EXPECT_EQ(std::string(small.c_str()), text.substr(0, size - 1));
      static_cast<void>(aToSlmInt64(text.c_str()));
    }
    EXPECT_TRUE(result != kConfigurationRefused || found_ == 0) << "a refused file keeps nothing";
    return result;
  }

  // Walks the server cache with `filter`; every record is met at most once.
  static void walk(int filter) {
    int records = 0;
    for (int32_t scope = kScopePreferred; scope < kScopeCount; ++scope) {
      records += countScopeServers(scope);
    }
    ServerHandle handle = nullptr;
    ServerInfo info{};
    for (int steps = 1; getNextServer(&handle, filter, &info) == kSrvsOk; ++steps) {
      ASSERT_LE(steps, records) << "the walk runs in a circle";
      ASSERT_LT(strnlen(info.address.host, kServerHostSize), kServerHostSize);
      ASSERT_LT(strnlen(info.address.path, kServerPathSize), kServerPathSize);
    }
  }
  static void walkAll() {
    for (int filter : {kAnyServer, kActiveServers, kNotRespondingServers}) {
      walk(filter);
      if (::testing::Test::HasFatalFailure()) return;
    }
  }

  std::mt19937 rng_{20240611};
  size_t fds_ = 0;
  int found_ = 0;
};

TEST_F(DamagedFile, ConfigurationReaderKeepsItsResultsAndBounds) {
  const std::string valid = "agentid=12\ndivisionid=-7\ntag=lab\n  #customer=Acme Corp\nport=80\n";
  for (size_t cut = 0; cut <= valid.size(); ++cut) {
    int result = loadText(valid.substr(0, cut));
    int lines = static_cast<int>(std::count(valid.begin(), valid.begin() + cut, '\n'));
    EXPECT_TRUE(result == kConfigurationLoaded || result == kConfigurationEmptyValue) << cut;
    EXPECT_TRUE((cut > 0 && valid[cut - 1] != '\n') || result == kConfigurationLoaded) << cut;
    EXPECT_TRUE(result != kConfigurationEmptyValue || found_ == lines) << "the lines before stay";
  }
  std::string crOnly = valid;
  std::replace(crOnly.begin(), crOnly.end(), '\n', '\r');
  EXPECT_EQ(loadText(crOnly), kConfigurationLoaded);
  EXPECT_EQ(found_, 1) << "a file without newlines is one line with one key";
  EXPECT_EQ(loadText("agentid=" + std::string(5000, 'v') + "\ntag=" + std::string(1500, 'w')),
            kConfigurationLoaded);
  EXPECT_EQ(found_, 2);
  EXPECT_EQ(loadText("agentid 1\ndivisionid\n\ntag\t7\n"), kConfigurationLoaded);
  EXPECT_EQ(found_, 0) << "keys without '=' are skipped";
  EXPECT_EQ(loadText(bytes({'t', 'a', 'g', '=', 0, 'x', '\n', 0, 'p', 'o', 'r', 't', '=', '1'})),
            kConfigurationEmptyValue);

  const char* pieces[] = {"agentid", "tag",  "server", "proxy_port", "port", "=", " ",
                          "\t",      "\r\n", "\n",     "\r",         "#",    "1", "value"};
  for (int i = 0; i < 1500; ++i) {
    std::string text;
    for (int n = static_cast<int>(rng_() % 40); n > 0; --n) {
      switch (rng_() % 4) {
        case 0:
          text += randomBytes(1 + rng_() % 8);
          break;
        case 1:
          text += std::string(rng_() % 1500, static_cast<char>('a' + rng_() % 3));
          break;
        default:
          text += pieces[rng_() % std::size(pieces)];
      }
    }
    loadText(text);
    if (HasFatalFailure()) return;
  }
}

TEST_F(DamagedFile, CacheHeaderIsEitherUsableOrThrownAway) {
  loadConfiguration("server=alpha\n");
  ASSERT_EQ(setCacheVersion(kServerFileId, kServerCacheVersion.majorNumber,
                            kServerCacheVersion.minorNumber),
            kCacheVersionOk);
  const std::string version = le32(1) + le32(2);
  const std::string valid = version + le32(77) + le32(0) + field("alpha.example", 256);
  for (int i = 0; i < 1500; ++i) {
    std::string data = damaged(valid);
    std::string path = writeCacheFile("server.dat", data);
    bool full = i % 2 == 0;
    int64_t timestamp = -1;
    FILE* file = nullptr;
    int result = openCacheFile(path.c_str(), kServerFileId, &file, full ? &timestamp : nullptr);
    int expected = kCacheFileValid;
    if (data.size() < version.size() || data.compare(0, version.size(), version) != 0) {
      expected = kCacheFileBad;
    } else if (full) {
      bool named = data.size() >= kCacheHeaderSize &&
                   strncmp(data.c_str() + kCacheServerNameOffset, "alpha", 5) == 0;
      if (!named) expected = kCacheFileBad;
    }
    ASSERT_EQ(result, expected) << i;
    if (result == kCacheFileValid) {
      const auto* stamp = reinterpret_cast<const uint8_t*>(data.data()) + kCacheTimestampOffset;
      EXPECT_TRUE(!full || timestamp == static_cast<int64_t>(getFixed64(stamp)));
      fclose(file);
    }
    bool kept = result == kCacheFileValid || data.size() < version.size();
    EXPECT_EQ(test::fileExists(path), kept) << i;
  }
}

std::string serverRecord(const std::string& host, uint32_t active, uint32_t scope) {
  return le32(0) + field(host, 256) + field("/" + host, 256) + le32(9000) + le32(1) + le32(0) +
         le32(active) + bytes({1, 0, 0, 0}) + le32(scope) + le32(0) + le32(0) + le32(0);
}

TEST_F(DamagedFile, ServerFileCutOrChangedLoadsWalksAndStores) {
  loadConfiguration("server=alpha\n");
  const std::string valid = le32(1) + le32(2) + le32(1000) + le32(0) + field("alpha", 256) +
                            le32(1) + le32(1) + serverRecord("d1", 0, 1) + serverRecord("e1", 1, 2);
  ServerInfo configured{};
  strcpy(configured.address.host, "alpha");
  // Each offset twice: the file cut there, and the byte there zeroed (or, if it was zero, changed).
  for (size_t i = 0; i < 2 * valid.size() + 1; ++i) {
    SCOPED_TRACE(i);
    size_t at = i / 2;
    std::string data = valid;
    if (i % 2 == 0) data.resize(at);
    if (i % 2 == 1) data[at] = data[at] != 0 ? '\0' : static_cast<char>(1 + rng_() % 255);
    remove(cachePath("server.dat").c_str());
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    writeCacheFile("server.dat", data);
    int loaded = loadServerListFile();
    int records = countScopeServers(kScopeDivision) + countScopeServers(kScopeEnterprise);
    if (i % 2 == 0) {
      EXPECT_EQ(loaded, at == valid.size() ? kSrvsOk : kSrvsFailed);
      EXPECT_EQ(records, at < kServerFileRecordsOffset
                             ? 0
                             : std::min(2, static_cast<int>((at - kServerFileRecordsOffset) /
                                                            kServerRecordSize)));
      if (at >= kCacheVersionSize && at < kCacheHeaderSize) {
        EXPECT_FALSE(test::fileExists(cachePath("server.dat"))) << "a torn header is thrown away";
      }
    } else {
      EXPECT_TRUE(loaded == kSrvsOk || loaded == kSrvsFailed) << loaded;
    }
    walkAll();
    deleteServersCache();
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    EXPECT_EQ(countScopeServers(kScopeDivision) + countScopeServers(kScopeEnterprise), records)
        << "what was stored reads back";
    walkAll();
    EXPECT_EQ(updateServerCache(nullptr, nullptr, nullptr), kSrvsOk);
    walkAll();
    deleteServersCache();
    if (HasFailure()) return;
  }
}

TEST_F(DamagedFile, PluginAndAgentFilesAnswerWithTheirResults) {
  loadConfiguration("agentid=1\ndivisionid=2\ntag=t\ncustomer=c\n");
  ASSERT_EQ(initAgentInfo(), kAgentValueOk);
  ASSERT_EQ(storePluginData(), kPluginStored);
  const std::string valid = readCacheFile(kPluginDatName);
  ASSERT_EQ(valid.size(), kPluginDatSize);
  std::string unterminated = valid;
  unterminated.replace(kPluginDriverNameOffset, kAgentTextSize, kAgentTextSize, 'D');
  for (size_t i = 0; i < 2 * valid.size() + 400; ++i) {
    size_t at = i / 2;
    std::string data = i % 2 == 0 ? valid : unterminated;
    int expected = kTupleMatches;
    if (at >= valid.size()) {
      data = damaged(valid);
      bool readable = data.size() >= kPluginDatSize && data.compare(0, 8, valid, 0, 8) == 0;
      expected = !readable ? kTupleUnreadable
                 : data.compare(kPluginTupleOffset, kSystemTupleSize, valid, kPluginTupleOffset,
                                kSystemTupleSize) == 0
                     ? kTupleMatches
                     : kTupleDiffers;
    } else if (i % 2 == 0) {
      data.resize(at);
      expected = kTupleUnreadable;
    } else {
      data[at] ^= static_cast<char>(1 + rng_() % 255);
      if (at < kCacheVersionSize) expected = kTupleUnreadable;
      if (at >= kPluginTupleOffset) expected = kTupleDiffers;
    }
    writeCacheFile(kPluginDatName, data);
    ASSERT_EQ(isToBeUpdatedSlmTuple(), expected) << i;
    size_t size = 1 + rng_() % 300;
    std::string name(size, 'X');
    ASSERT_EQ(getAgentCharValue(kAgentDriverName, name.data(), size), kAgentValueOk);
    EXPECT_EQ(name[size - 1], '\0');
    EXPECT_LE(strlen(name.c_str()), kAgentTextSize);
    EXPECT_TRUE(i % 97 != 0 || storePluginData() == kPluginStored);
  }

  for (int i = 0; i < 400; ++i) {
    std::string data = randomBytes(rng_() % 48);
    writeCacheFile(kAgentDatName, data);
    if (i == 0) remove(cachePath(kAgentDatName).c_str());
    for (int32_t id : {-1, 0, 1, 2, 3, 5, 11, INT32_MAX}) {
      // Ids 1 and 2 share a slot.
      int64_t slot = id <= 1 ? id : int64_t{id} - 1;
      bool present = i > 0 && id >= 0 && 4 * slot + 4 <= static_cast<int64_t>(data.size());
      int32_t value = 0x5A5A5A5A;
      ASSERT_EQ(loadParameter(id, &value), present ? kParameterOk : kParameterFailed) << id;
      int32_t expected = 0x5A5A5A5A;
      if (present) {
        expected = static_cast<int32_t>(
            getFixed32(reinterpret_cast<const uint8_t*>(data.data()) + 4 * slot));
      }
      EXPECT_EQ(value, expected) << id;
    }
  }
}

}  // namespace
}  // namespace slm
