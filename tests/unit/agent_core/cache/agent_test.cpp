#include "agent_core/cache/agent.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/system_tuple.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::bytes;
using test::field;
using test::fileExists;

constexpr char kBaseConfiguration[] =
    "agentid=1234567890123\n"
    "divisionid=-7\n"
    "tag=lab östra\n"
    "customer=Acme Corp\n";

class AgentInfoTest : public test::AgentSandbox {
 protected:
  void TearDown() override {
    clearAgentInfo();
    AgentSandbox::TearDown();
  }

  void init(const std::string& configuration = kBaseConfiguration) {
    loadConfiguration(configuration);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk) << trace();
  }

  static std::string text(int32_t id, size_t size = 1024) {
    std::string buffer(size, 'X');
    EXPECT_EQ(getAgentCharValue(id, buffer.data(), size), kAgentValueOk) << "id " << id;
    return std::string(buffer.c_str());
  }
  static int64_t number(int32_t id) {
    int64_t value = 0x5A5A5A5A;
    EXPECT_EQ(getAgentIntValue(id, &value), kAgentValueOk) << "id " << id;
    return value;
  }
  // The values of `ids`, each followed by a space.
  static std::string numbers(std::initializer_list<int32_t> ids) {
    std::string out;
    for (int32_t id : ids) out += std::to_string(number(id)) + " ";
    return out;
  }
  static void set(int32_t id, int64_t value) {
    ASSERT_EQ(setAgentIntValue(id, value), kAgentValueOk) << "id " << id;
  }
  static void setText(int32_t id, const std::string& value) {
    ASSERT_EQ(setAgentCharValue(id, value.c_str()), kAgentValueOk) << "id " << id;
  }
};

using AgentInfo = AgentInfoTest;

TEST_F(AgentInfo, StopsAtTheFirstMissingRequiredKeyAndFreesTheLock) {
  const std::pair<const char*, const char*> cases[] = {
      {"server=alpha\n", "agentid"},
      {"agentid=1\n", "divisionid"},
      {"agentid=1\ndivisionid=2\ncustomer=c\n", "tag"},
      {"agentid=1\ndivisionid=2\ntag=t\n", "customer"},
  };
  for (const auto& [configuration, missing] : cases) {
    SCOPED_TRACE(missing);
    restartTrace();
    loadConfiguration(configuration);
    EXPECT_EQ(initAgentInfo(), kAgentValueFailed);
    EXPECT_TRUE(traced(std::string("ERROR - Needed tag \"") + missing + "\" not found")) << trace();
    EXPECT_FALSE(traced("OK - Agent properties"));
    int64_t value = 0;
    EXPECT_EQ(getAgentIntValue(kAgentId, &value), kAgentValueFailed);
    EXPECT_EQ(setAgentCharValue(kAgentHostName, "h"), kAgentValueFailed);
  }
}

TEST_F(AgentInfo, FillsTheRecordFromConfigurationAndSystem) {
  init();
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(text(kAgentTag), "LAB ÖSTRA");
  EXPECT_EQ(text(kAgentCustomer), "Acme Corp");
  EXPECT_EQ(text(kAgentHostName), host);
  EXPECT_EQ(text(kAgentOsDescription), std::string(names.sysname) + " " + names.release);
  const std::string cpus = std::to_string(sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(numbers({kAgentId, kAgentDivisionId, kAgentCpuCount, kAgentCpuCountCopy}),
            "1234567890123 -7 " + cpus + " " + cpus + " ");
  EXPECT_GT(number(kAgentMemoryMiB), 0);

  // Values nobody has set yet keep their initial contents.
  EXPECT_EQ(text(kAgentOsFamily) + "|" + text(kAgentIpAddress) + "|" + text(kAgentProxyHost) + "|" +
                text(kAgentDriverName),
            "Unix|no ip|no proxy|");
  EXPECT_EQ(numbers({kAgentPluggedIn, kAgentNodeId, kAgentProxyPort, kAgentAttempts,
                     kAgentMaxDelaySeconds, kAgentPacketSize, kAgentTimeThresholdSeconds,
                     kAgentDelayFactor, kAgentDriverStatus}),
            "0 0 0 5 10800 25 30 1 -1 ");

  EXPECT_EQ(testCacheVersion(kAgentFileId, CacheVersion{1, 1}), kCacheVersionOk);
  EXPECT_EQ(testCacheVersion(kPluginFileId, CacheVersion{1, 2}), kCacheVersionOk);
  EXPECT_TRUE(traced("OK - Agent codeset: ")) << trace();
  EXPECT_TRUE(traced("OK - Agent properties"));
  EXPECT_FALSE(traced("roxy"));  // neither proxy message while the proxy is off

  // A rebuild starts again from the initial values.
  set(kAgentNodeId, 99);
  clearAgentInfo();
  int64_t value = 0;
  EXPECT_EQ(getAgentIntValue(kAgentNodeId, &value), kAgentValueFailed);
  init("agentid=12x\ndivisionid=+5 \ntag=x\ncustomer=c\n");
  // A malformed id becomes 0 without a message.
  EXPECT_EQ(numbers({kAgentNodeId, kAgentId, kAgentDivisionId}), "0 0 5 ");
  EXPECT_FALSE(traced("Bad agent id"));
}

TEST_F(AgentInfo, ReadsProxySettingsAndReportsIncompleteOnes) {
  struct Case {
    const char* lines;
    int32_t useProxy;
    const char* expected;     // message that must be traced, or null
    const char* notExpected;  // message that must not be traced
  };
  const Case cases[] = {
      {"use_proxy=yes\nproxy=gate\nproxy_port=8080\nproxy_security=1\n", 1,
       "OK - Using proxy server", "ERROR - Proxy parameter"},
      {"use_proxy=Y\nproxy=gate\nproxy_port=8080\n", 1, "ERROR - Proxy parameter missing or wrong",
       "OK - Using proxy server"},
      {"use_proxy=y\nproxy_port=8080\nproxy_security=1\n", 1,
       "ERROR - Proxy parameter missing or wrong", "OK - Using proxy server"},
      {"use_proxy=YES\nproxy=gate\nproxy_port=8080\nproxy_security=1\n", 0,
       "ERROR - Bad proxy_needed value: YES", "Using proxy server"},
      {"use_proxy=n\nproxy=gate.example\nproxy_port=70000\n", 0, nullptr, "roxy"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines);
    clearAgentInfo();
    restartTrace();
    init(std::string(kBaseConfiguration) + c.lines);
    EXPECT_EQ(agentUseProxy(), c.useProxy);
    EXPECT_TRUE(c.expected == nullptr || traced(c.expected)) << trace();
    EXPECT_FALSE(traced(c.notExpected)) << trace();
  }
  // The last case: the settings are read even while the proxy is off; the port keeps 16 bits.
  EXPECT_EQ(text(kAgentProxyHost), "gate.example");
  EXPECT_EQ(number(kAgentProxyPort), 70000 - 65536);
}

TEST_F(AgentInfo, AccessorsTruncateWidenAndKeepTheirMismatches) {
  init();
  // Id 19 reads the maximum delay and id 8 the driver status, whatever was set through them.
  set(kAgentProxySecurity, 7);
  set(kAgentReserved, 5);
  EXPECT_EQ(numbers({kAgentProxySecurity, kAgentReserved}), "10800 -1 ");
  set(kAgentMaxDelaySeconds, 600);
  set(kAgentDriverStatus, 3);
  EXPECT_EQ(numbers({kAgentProxySecurity, kAgentReserved}), "600 3 ");

  // The use-proxy switch is set here but read only without the lock.
  int64_t value = 0;
  set(kAgentUseProxy, 1);
  EXPECT_EQ(getAgentIntValue(kAgentUseProxy, &value), kAgentValueFailed);
  EXPECT_EQ(agentUseProxy(), 1);

  set(kAgentMemoryMiB, 0x100000005);  // 32-bit fields keep the low half
  set(kAgentDiskCount, 0xFFFFFFFF);   // and are sign-extended
  set(kAgentProxyPort, 0x1FFFF);      // the port keeps 16 bits, zero-extended
  set(kAgentNodeId, -0x123456789AB);
  set(kAgentId, 0x7FFFFFFFFFFFFFFF);
  EXPECT_EQ(numbers({kAgentMemoryMiB, kAgentDiskCount, kAgentProxyPort, kAgentNodeId, kAgentId}),
            "5 -1 65535 -1250999896491 9223372036854775807 ");
  for (int32_t unknown : {-1, 5, 17, 20, 29}) {
    EXPECT_EQ(setAgentIntValue(unknown, 1), kAgentValueFailed) << unknown;
    EXPECT_EQ(getAgentIntValue(unknown, &value), kAgentValueFailed) << unknown;
  }

  // Texts: at most 255 characters, 15 for the IP address; the caller's size bounds the copy.
  setText(kAgentHostName, std::string(300, 'h'));
  EXPECT_EQ(text(kAgentHostName), std::string(255, 'h'));
  setText(kAgentIpAddress, "192.168.100.200.7");
  EXPECT_EQ(text(kAgentIpAddress) + "|" + text(kAgentIpAddress, 4) + "|" + text(kAgentIpAddress, 1),
            "192.168.100.200|192|");
  EXPECT_EQ(setAgentCharValue(kAgentOsFamily, "Other"), kAgentValueFailed);
  EXPECT_EQ(text(kAgentOsFamily), "Unix");
  char buffer[8];
  for (int32_t unknown : {0, 5, 16, 28}) {
    EXPECT_EQ(setAgentCharValue(unknown, "x"), kAgentValueFailed) << unknown;
    EXPECT_EQ(getAgentCharValue(unknown, buffer, sizeof buffer), kAgentValueFailed) << unknown;
  }

  // Blocks: 4 bytes for the scan start, 8 for the rule, nothing beyond.
  const std::string start = bytes({1, 2, 3, 4});
  const std::string rule = bytes({9, 8, 7, 6, 5, 4, 3, 2});
  auto raw = [](const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); };
  ASSERT_EQ(setAgentStructValue(kAgentScanStart, raw(start)), kAgentValueOk);
  ASSERT_EQ(setAgentStructValue(kAgentScanRule, raw(rule)), kAgentValueOk);
  for (int32_t id : {kAgentScanStart, kAgentScanRule}) {
    std::string out(12, '\xEE');
    ASSERT_EQ(getAgentStructValue(id, reinterpret_cast<uint8_t*>(out.data())), kAgentValueOk);
    const std::string& stored = id == kAgentScanStart ? start : rule;
    EXPECT_EQ(out, stored + std::string(12 - stored.size(), '\xEE')) << "id " << id;
  }
  EXPECT_EQ(setAgentStructValue(kAgentMaxDelaySeconds, raw(start)), kAgentValueFailed);
  EXPECT_EQ(getAgentStructValue(19, reinterpret_cast<uint8_t*>(buffer)), kAgentValueFailed);
}

TEST_F(AgentInfo, ReadersNeverSeeAHalfWrittenText) {
  init();
  const std::string first(200, 'a');
  const std::string second(120, 'b');
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < 2000; ++i) {
      ASSERT_EQ(setAgentCharValue(kAgentCustomer, (i % 2 == 0 ? first : second).c_str()),
                kAgentValueOk);
    }
  });
  std::atomic<int> torn{0};
  for (int reader = 0; reader < 3; ++reader) {
    threads.emplace_back([&] {
      char buffer[256];
      for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(getAgentCharValue(kAgentCustomer, buffer, sizeof buffer), kAgentValueOk);
        std::string value(buffer);
        if (value != first && value != second && value != "Acme Corp") ++torn;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn.load(), 0);
}

using AgentDat = test::AgentSandbox;

TEST_F(AgentDat, FreshFileHoldsTwoZeroSlotsAndThePathLength) {
  int32_t value = 0;
  EXPECT_EQ(loadParameter(1, &value), kParameterFailed);  // no file yet
  ASSERT_EQ(saveParameter(2, 0x11223344), kParameterOk);
  EXPECT_EQ(readCacheFile("agent.dat"), bytes({0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11}) +
                                            test::le32(cachePath("agent.dat").size()));
  EXPECT_EQ(loadParameter(4, &value), kParameterFailed);
  ASSERT_EQ(loadParameter(1, &value), kParameterOk);  // ids 1 and 2 share a slot
  EXPECT_EQ(value, 0x11223344);

  ASSERT_EQ(saveParameter(4, -2), kParameterOk);
  ASSERT_EQ(saveParameter(3, 600), kParameterOk);
  ASSERT_EQ(saveParameter(0, 9), kParameterOk);
  EXPECT_EQ(readCacheFile("agent.dat"), bytes({9, 0, 0, 0, 0x44, 0x33, 0x22, 0x11,  //
                                               0x58, 0x02, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}));
  ASSERT_EQ(loadParameter(4, &value), kParameterOk);
  EXPECT_EQ(value, -2);
  EXPECT_EQ(saveParameter(-1, 1), kParameterFailed);
  EXPECT_EQ(loadParameter(-1, &value), kParameterFailed);
}

TEST_F(AgentDat, ExistingFileIsUpdatedInPlace) {
  writeCacheFile("agent.dat", bytes({1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5}));
  ASSERT_EQ(saveParameter(1, 0x0A0B0C0D), kParameterOk);
  EXPECT_EQ(readCacheFile("agent.dat"), bytes({1, 1, 1, 1, 0x0D, 0x0C, 0x0B, 0x0A, 3, 3, 3, 3,  //
                                               4, 4, 4, 4, 5,    5,    5,    5}));
  std::filesystem::remove_all(root_.file("var/qsam/cache"));
  EXPECT_EQ(saveParameter(1, 1), kParameterFailed);
}

using PluginDat = AgentInfoTest;

// The plugin.dat layout written out by hand: a record whose every field differs from its
// neighbours.
TEST_F(PluginDat, EncodesTheRecordAtItsOffsets) {
  slm::AgentInfo record;
  record.agentId = 0x0102030405060708;
  record.divisionId = -2;
  strncpy(record.hostName, "host", sizeof record.hostName);
  strncpy(record.osDescription, "Linux 6.1", sizeof record.osDescription);
  strncpy(record.ipAddress, "10.0.0.1", sizeof record.ipAddress);
  record.memoryMiB = 2048;
  record.diskCount = 3;
  record.cpuCount = 4;
  record.cpuCountCopy = 5;
  record.nodeId = 0x1122334455;
  strncpy(record.tag, "TAG", sizeof record.tag);
  strncpy(record.driverName, "kvdkagent-1", sizeof record.driverName);
  memset(record.systemTuple, 'T', sizeof record.systemTuple);
  strncpy(record.customer, "not stored", sizeof record.customer);
  record.driverStatus = 0x7F;

  std::string expected = bytes({1, 0, 0, 0, 2, 0, 0, 0});               // 0: version 1.2
  expected += bytes({8, 7, 6, 5, 4, 3, 2, 1});                          // 8: agent id
  expected += bytes({0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});  // 16: division id
  expected += field("host", 256);                                       // 24
  expected += field("Unix", 256);                                       // 280
  expected += field("Linux 6.1", 256);                                  // 536
  expected += field("10.0.0.1", 16);                                    // 792
  expected += bytes({0x00, 0x08, 0, 0});                                // 808: memory
  expected += bytes({3, 0, 0, 0});                                      // 812: disks
  expected += bytes({0xFF, 0xFF, 0xFF, 0xFF});                          // 816: reserved
  expected += bytes({4, 0, 0, 0, 5, 0, 0, 0});                          // 820: processors
  expected += bytes({0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0});           // 828: node id
  expected += field("TAG", 256);                                        // 836
  expected += field("kvdkagent-1", 256);                                // 1092
  expected += std::string(300, 'T');                                    // 1348: tuple
  ASSERT_EQ(expected.size(), 1648u);

  uint8_t out[kPluginDatSize];
  encodePluginData(CacheVersion{1, 2}, record, out);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), sizeof out), expected);
}

TEST_F(PluginDat, StoresTheLiveRecordAndRecognisesItsTuple) {
  init();
  setText(kAgentHostName, "a-much-longer-host-name");
  setText(kAgentHostName, "node7");
  setText(kAgentDriverName, "kvdkagent-abc");
  set(kAgentNodeId, 77);
  ASSERT_EQ(storePluginData(), kPluginStored);
  EXPECT_TRUE(traced("Data written into file " + cachePath("plugin.dat")));

  const std::string file = readCacheFile("plugin.dat");
  ASSERT_EQ(file.size(), 1648u);
  EXPECT_EQ(file.substr(0, 24), bytes({1,    0,    0,    0,    2,    0,    0,    0,  //
                                       0xCB, 0x04, 0xFB, 0x71, 0x1F, 0x01, 0,    0,  //
                                       0xF9, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(file.substr(24, 256), field("node7", 256));  // nothing left of the longer name
  EXPECT_EQ(file.substr(828, 8), bytes({77, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(file.substr(836, 256), field("LAB ÖSTRA", 256));
  EXPECT_EQ(file.substr(1092, 256), field("kvdkagent-abc", 256));
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  char tuple[kSystemTupleSize];
  const char* machine = strstr(names.machine, "86") != nullptr ? "x86" : names.machine;
  encodeSystemTuple(names.sysname, names.release, machine, names.version, tuple);
  EXPECT_EQ(file.substr(1348), std::string(tuple, sizeof tuple));  // the running system

  EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleMatches);

  // The driver name comes back from the file, and a changed tuple is noticed.
  setText(kAgentDriverName, "other");
  std::string changed = file;
  changed.replace(1092, 256, field("kvdkagent-old", 256));
  changed[1348 + 100] ^= 0x01;
  writeCacheFile("plugin.dat", changed);
  EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleDiffers);
  EXPECT_EQ(text(kAgentDriverName), "kvdkagent-old");
}

TEST_F(PluginDat, UnreadableFilesAnswerOne) {
  init();
  ASSERT_EQ(storePluginData(), kPluginStored);
  const std::string file = readCacheFile("plugin.dat");
  struct Case {
    const char* what;
    std::string content;
    const char* message;
    bool kept;
  };
  const Case cases[] = {
      {"no driver name", file.substr(0, 1000), "Reading the friver name from file ", true},
      {"short tuple", file.substr(0, 1400), "Reading the slm tuple from file ", true},
      {"other minor version", bytes({1, 0, 0, 0, 3, 0, 0, 0}) + file.substr(8),
       "ERROR - Checking cache version for file ", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    restartTrace();
    writeCacheFile("plugin.dat", c.content);
    EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleUnreadable);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(fileExists(cachePath("plugin.dat")), c.kept);
  }
  std::filesystem::remove(cachePath("plugin.dat"));
  EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleUnreadable);
}

TEST_F(PluginDat, FailedStoreLeavesNoFile) {
  init();
  // A device that refuses every write stands in for a full disk.
  std::filesystem::create_symlink("/dev/full", cachePath("plugin.dat"));
  EXPECT_EQ(storePluginData(), kPluginNotStored);
  EXPECT_TRUE(traced("ERROR - Writing the ")) << trace();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(cachePath("plugin.dat"))));

  restartTrace();
  std::filesystem::remove_all(root_.file("var/qsam/cache"));
  EXPECT_EQ(storePluginData(), kPluginNotStored);
  EXPECT_EQ(trace(), "");
}

}  // namespace
}  // namespace slm
