// Damaged and hostile input for the configuration reader and the cache files: random bytes, valid
// files cut at every offset or with one byte changed, over-long lines, NULs. Whatever the input,
// results stay among the documented codes, texts stay terminated and no descriptor is left open.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/support/bytes.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::bytes, test::field, test::le32;

size_t openDescriptors() {
  auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

const uint8_t* at(const std::string& data, size_t offset) {
  return reinterpret_cast<const uint8_t*>(data.data()) + offset;
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
  // Case `i` of a sweep over `valid`: even cases cut it at i / 2, odd ones change the byte there
  // (a non-zero byte becomes zero). Past the sweep: `valid` itself, then random bytes or a random
  // case of the sweep.
  std::string variant(const std::string& valid, size_t i) {
    if (i == 2 * valid.size()) return valid;
    if (i > 2 * valid.size() && rng_() % 2 == 0) return randomBytes(rng_() % (valid.size() + 16));
    if (i > 2 * valid.size()) i = rng_() % (2 * valid.size());
    size_t offset = i / 2;
    std::string data = valid.substr(0, i % 2 == 0 ? offset : valid.size());
    if (i % 2 == 1) data[offset] = data[offset] != 0 ? '\0' : static_cast<char>(1 + rng_() % 255);
    return data;
  }
  // Loads `text` as the configuration and reads every value back through a buffer of random size.
  // Returns the result; `found_` counts the keys that have a value.
  int loadText(const std::string& text) {
    deleteConfigurationVariables();
    root_.writeFile("etc/kvdagent.ini", text);
    int result = loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str());
    found_ = 0;
    for (const char* key : kConfigurationKeys) {
      std::string value(1 + rng_() % 300, 'X');
      if (getConfigurationValue(key, value.data(), value.size()) != kConfigurationValueFound)
        continue;
      ++found_;
      std::string text(value.c_str());  // terminated, cut, one line, no trailing blanks
      EXPECT_TRUE(value.back() == '\0' && text.size() <= kConfigurationValueChars &&
                  text.find('\n') == std::string::npos &&
                  (text.empty() || strchr(" \t\r", text.back()) == nullptr));
      static_cast<void>(aToSlmInt64(text.c_str()));
    }
    EXPECT_TRUE(result == kConfigurationLoaded || result == kConfigurationEmptyValue ||
                (result == kConfigurationRefused && found_ == 0))
        << result;
    return result;
  }
  // Walks the server cache with each filter; a walk meets every record at most once.
  static void walkAll() {
    int records = countScopeServers(0) + countScopeServers(1) + countScopeServers(2);
    for (int filter : {kAnyServer, kActiveServers, kNotRespondingServers}) {
      ServerHandle handle = nullptr;
      ServerInfo info{};
      for (int steps = 1; getNextServer(&handle, filter, &info) == kSrvsOk; ++steps) {
        ASSERT_LE(steps, records) << "the walk runs in a circle";
        ASSERT_LT(strnlen(info.address.host, kServerHostSize), kServerHostSize);
        ASSERT_LT(strnlen(info.address.path, kServerPathSize), kServerPathSize);
      }
    }
  }

  std::mt19937 rng_{20240611};
  size_t fds_ = 0;
  int found_ = 0;
};

TEST_F(DamagedFile, ConfigurationReaderKeepsItsResultsAndBounds) {
  const std::string valid = "agentid=12\ndivisionid=-7\ntag=lab\n  #customer=Acme Corp\nport=80\n";
  for (size_t cut = 0; cut <= valid.size(); ++cut) {  // a line cut after its "=" stops the load
    int lines = static_cast<int>(std::count(valid.begin(), valid.begin() + cut, '\n'));
    int result = loadText(valid.substr(0, cut));
    EXPECT_TRUE(result == kConfigurationLoaded ||
                (result == kConfigurationEmptyValue && valid[cut - 1] != '\n' && found_ == lines));
  }
  std::string crOnly = valid;
  std::replace(crOnly.begin(), crOnly.end(), '\n', '\r');
  const std::tuple<std::string, int, int> cases[] = {
      // text, result, keys found
      {crOnly, kConfigurationLoaded, 1},  // without newlines the file is one line with one key
      {"agentid=" + std::string(5000, 'v') + "\ntag=" + std::string(1500, 'w'),
       kConfigurationLoaded, 2},
      {"agentid 1\ndivisionid\n\ntag\t7\n", kConfigurationLoaded, 0},  // keys without "="
      {bytes({'p', 'o', 'r', 't', '=', '1', 0, '\n', 't', 'a', 'g', '=', 0, '\n'}),
       kConfigurationEmptyValue, 1},  // a NUL ends the text of its line
  };
  for (const auto& [text, result, found] : cases) {
    EXPECT_EQ(loadText(text), result);
    EXPECT_EQ(found_, found);
  }
  const char* pieces[] = {"agentid", "tag",  "server", "proxy_port", "port", "=", " ",
                          "\t",      "\r\n", "\n",     "\r",         "#",    "1", "value"};
  for (int i = 0; i < 1500; ++i) {
    std::string text;
    for (unsigned n = rng_() % 40; n > 0; --n) {
      unsigned kind = rng_() % 4;
      if (kind == 0) text += randomBytes(1 + rng_() % 8);
      if (kind == 1) text += std::string(rng_() % 1500, static_cast<char>('a' + rng_() % 3));
      if (kind > 1) text += pieces[rng_() % std::size(pieces)];
    }
    loadText(text);
  }
}

TEST_F(DamagedFile, ServerFileCutOrChangedLoadsWalksAndStores) {
  loadConfiguration("server=alpha\n");
  std::string valid =
      le32(1) + le32(2) + le32(1000) + le32(0) + field("alpha", 256) + le32(1) + le32(1);
  for (uint32_t scope : {1, 2}) {  // d1 (not responding) and e1 (active)
    std::string host = scope == 1 ? "d1" : "e1";
    valid += le32(0) + field(host, 256) + field("/" + host, 256) + le32(9000) + le32(1) + le32(0) +
             le32(scope - 1) + bytes({1, 0, 0, 0}) + le32(scope) + std::string(12, '\0');
  }
  ServerInfo configured{};
  strcpy(configured.address.host, "alpha");
  for (size_t i = 0; i < 2 * valid.size() + 300; ++i) {
    SCOPED_TRACE(i);
    std::string data = variant(valid, i);
    bool header = data.size() >= kCacheHeaderSize && data.compare(0, 8, valid, 0, 8) == 0 &&
                  strncmp(data.c_str() + kCacheServerNameOffset, "alpha", 5) == 0;
    remove(cachePath("server.dat").c_str());
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    writeCacheFile("server.dat", data);
    int loaded = loadServerListFile();
    int records = countScopeServers(kScopeDivision) + countScopeServers(kScopeEnterprise);
    EXPECT_TRUE(loaded == kSrvsOk || (loaded == kSrvsFailed && (header || records == 0)));
    // A bad header is thrown away, except one too short to hold the version.
    EXPECT_EQ(test::fileExists(cachePath("server.dat")), header || data.size() < 8);
    EXPECT_EQ(getSrvsCacheUpdateTime(), header ? getFixed32(at(data, 8)) : 0u);
    if (i % 2 == 0 && i < 2 * valid.size()) {  // cut: the records before the cut stay
      EXPECT_EQ(loaded, kSrvsFailed);
      EXPECT_EQ(records, data.size() < 280 ? 0 : static_cast<int>((data.size() - 280) / 552));
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
  // The driver name fills its field without a terminator, as a damaged file may hold it.
  std::string valid = readCacheFile(kPluginDatName);
  ASSERT_EQ(valid.size(), kPluginDatSize);
  valid.replace(kPluginDriverNameOffset, kAgentTextSize, kAgentTextSize, 'D');
  for (size_t i = 0; i < 2 * valid.size() + 400; ++i) {
    std::string data = variant(valid, i);
    bool readable = data.size() >= kPluginDatSize && data.compare(0, 8, valid, 0, 8) == 0;
    bool same = readable && memcmp(at(data, kPluginTupleOffset), at(valid, kPluginTupleOffset),
                                   kSystemTupleSize) == 0;
    writeCacheFile(kPluginDatName, data);
    ASSERT_EQ(isToBeUpdatedSlmTuple(), same       ? kTupleMatches
                                       : readable ? kTupleDiffers
                                                  : kTupleUnreadable)
        << i;
    std::string name(1 + rng_() % 300, 'X');
    ASSERT_EQ(getAgentCharValue(kAgentDriverName, name.data(), name.size()), kAgentValueOk);
    EXPECT_TRUE(name.back() == '\0' && strlen(name.c_str()) <= kAgentTextSize);
    EXPECT_EQ(i % 97 == 0 ? storePluginData() : kPluginStored, kPluginStored);
  }
  for (int i = 0; i < 400; ++i) {
    std::string data = randomBytes(rng_() % 48);
    if (i > 0) writeCacheFile(kAgentDatName, data);  // the first time there is no file
    for (int32_t id : {-1, 0, 1, 2, 3, 5, 11, INT32_MAX}) {
      int64_t offset = 4 * (id <= 1 ? id : int64_t{id} - 1);  // ids 1 and 2 share a slot
      bool present = i > 0 && id >= 0 && offset + 4 <= static_cast<int64_t>(data.size());
      int32_t value = 0x5A5A5A5A;
      ASSERT_EQ(loadParameter(id, &value), present ? kParameterOk : kParameterFailed) << id;
      EXPECT_EQ(value, present ? static_cast<int32_t>(getFixed32(at(data, offset))) : 0x5A5A5A5A);
    }
  }
}

}  // namespace
}  // namespace slm
