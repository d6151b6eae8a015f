#include "agent_core/cache/agent.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::bytes;
using test::field;

constexpr char kBaseConfiguration[] =
    "agentid=1234567890123\ndivisionid=-7\ntag=lab östra\ncustomer=Acme Corp\n";

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
  // The values of `ids`, each followed by a space.
  static std::string numbers(std::initializer_list<int32_t> ids) {
    std::string out;
    for (int32_t id : ids) {
      int64_t value = 0x5A5A5A5A;
      EXPECT_EQ(getAgentIntValue(id, &value), kAgentValueOk) << "id " << id;
      out += std::to_string(value) + " ";
    }
    return out;
  }
  static void set(int32_t id, int64_t v) { ASSERT_EQ(setAgentIntValue(id, v), kAgentValueOk); }
  static void setText(int32_t id, const std::string& v) {
    ASSERT_EQ(setAgentCharValue(id, v.c_str()), kAgentValueOk);
  }
};

using AgentInfo = AgentInfoTest;

int64_t memTotalKiB() {
  std::ifstream meminfo("/proc/meminfo");
  std::string label;
  int64_t kib = -1;
  while (meminfo >> label >> kib && label != "MemTotal:") meminfo.ignore(256, '\n');
  return kib;
}

TEST_F(AgentInfo, StopsAtTheFirstMissingRequiredKeyAndFreesTheLock) {
  const std::pair<const char*, const char*> cases[] = {
      {"server=alpha\n", "agentid"},
      {"agentid=1\ndivisionid=2\ncustomer=c\n", "tag"},
      {"agentid=1\ndivisionid=2\ntag=t\n", "customer"}};
  for (const auto& [configuration, missing] : cases) {
    loadConfiguration(configuration);
    EXPECT_EQ(initAgentInfo(), kAgentValueFailed);
    EXPECT_TRUE(traced(std::string("ERROR - Needed tag \"") + missing + "\" not found")) << trace();
    EXPECT_EQ(setAgentCharValue(kAgentHostName, "h"), kAgentValueFailed);
  }
}

TEST_F(AgentInfo, FillsTheRecordFromConfigurationAndSystem) {
  init();
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(text(kAgentTag) + "|" + text(kAgentCustomer) + "|" + text(kAgentHostName) + "|" +
                text(kAgentOsDescription),
            std::string("LAB ÖSTRA|Acme Corp|") + names.nodename + "|" + names.sysname + " " +
                names.release);
  const std::string cpus = std::to_string(sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(numbers({kAgentId, kAgentDivisionId, kAgentCpuCount, kAgentCpuCountCopy}),
            "1234567890123 -7 " + cpus + " " + cpus + " ");
  // The sandbox root has no devices, so root counts no disks; anyone else may not count them.
  EXPECT_EQ(numbers({kAgentMemoryMiB, kAgentDiskCount}),
            std::to_string(memTotalKiB() >> 10) + (geteuid() == 0 ? " 0 " : " -1 "));

  // A rebuild starts again from the initial values; a malformed id becomes 0.
  set(kAgentNodeId, 99);
  clearAgentInfo();
  init("agentid=12x\ndivisionid=+5 \ntag=x\ncustomer=c\n");
  EXPECT_EQ(numbers({kAgentNodeId, kAgentId, kAgentDivisionId}), "0 0 5 ");
}

TEST_F(AgentInfo, ReadsProxySettingsAndReportsIncompleteOnes) {
  const std::tuple<const char*, int32_t, const char*> cases[] = {
      {"use_proxy=yes\nproxy=gate\nproxy_port=8080\nproxy_security=1\n", 1,
       "OK - Using proxy server"},
      {"use_proxy=y\nproxy_port=8080\nproxy_security=1\n", 1,
       "ERROR - Proxy parameter missing or wrong"},
      {"use_proxy=yes\nproxy=gate\nproxy_security=1\n", 1,
       "ERROR - Proxy parameter missing or wrong"},
      {"use_proxy=yes\nproxy=gate\nproxy_port=8080\n", 1,
       "ERROR - Proxy parameter missing or wrong"},
      {"use_proxy=YES\nproxy=gate\nproxy_port=8080\n", 0, "ERROR - Bad proxy_needed value: YES"},
      {"use_proxy=n\nproxy=gate.example\nproxy_port=70000\n", 0, "OK - Agent properties"},
  };
  for (const auto& [lines, useProxy, message] : cases) {
    clearAgentInfo();
    restartTrace();
    init(std::string(kBaseConfiguration) + lines);
    EXPECT_EQ(agentUseProxy(), useProxy) << lines;
    EXPECT_TRUE(traced(message)) << trace();
  }
  // The settings are read even while the proxy is off; the port keeps 16 bits.
  EXPECT_EQ(text(kAgentProxyHost) + numbers({kAgentProxyPort}), "gate.example4464 ");
}

TEST_F(AgentInfo, AccessorsTruncateWidenAndKeepTheirMismatches) {
  init();
  // Id 19 reads the maximum delay and id 8 the driver status, whatever was set through them.
  set(kAgentMaxDelaySeconds, 600);
  set(kAgentDriverStatus, 3);
  EXPECT_EQ(numbers({kAgentProxySecurity, kAgentReserved}), "600 3 ");

  int64_t value = 0;
  set(kAgentUseProxy, 1);  // set here but read only without the lock
  EXPECT_EQ(getAgentIntValue(kAgentUseProxy, &value), kAgentValueFailed);
  EXPECT_EQ(agentUseProxy(), 1);

  set(kAgentMemoryMiB, 0x100000005);  // 32-bit fields keep the low half
  set(kAgentDiskCount, 0xFFFFFFFF);   // and are sign-extended
  set(kAgentNodeId, -0x123456789AB);
  EXPECT_EQ(numbers({kAgentMemoryMiB, kAgentDiskCount, kAgentNodeId}), "5 -1 -1250999896491 ");
  char buffer[8];
  for (auto [number, text] : {std::pair{-1, 0}, {5, 5}, {17, 16}, {20, 28}, {29, 29}}) {
    EXPECT_EQ(setAgentIntValue(number, 1), kAgentValueFailed) << number;
    EXPECT_EQ(getAgentCharValue(text, buffer, sizeof buffer), kAgentValueFailed) << text;
  }

  setText(kAgentHostName, std::string(300, 'h'));
  EXPECT_EQ(text(kAgentHostName), std::string(255, 'h'));
  setText(kAgentIpAddress, "192.168.100.200.7");
  EXPECT_EQ(text(kAgentIpAddress) + "|" + text(kAgentIpAddress, 4), "192.168.100.200|192");
  EXPECT_EQ(setAgentCharValue(kAgentOsFamily, "Other"), kAgentValueFailed);

  const std::string rule = bytes({9, 8, 7, 6, 5, 4, 3, 2});
  ASSERT_EQ(setAgentStructValue(kAgentScanRule, rule.data()), kAgentValueOk);
  std::string out(12, '\xEE');
  ASSERT_EQ(getAgentStructValue(kAgentScanRule, out.data()), kAgentValueOk);
  EXPECT_EQ(out, rule + "\xEE\xEE\xEE\xEE");  // 8 bytes, nothing beyond
}

TEST_F(AgentInfo, ReadersNeverSeeAHalfWrittenText) {
  init();
  const std::string first(200, 'a'), second(120, 'b');
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < 2000; ++i)
      ASSERT_EQ(setAgentCharValue(kAgentCustomer, (i % 2 ? first : second).c_str()), 1);
  });
  for (int reader = 0; reader < 3; ++reader)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        std::string value = text(kAgentCustomer, 256);
        if (value != first && value != second && value != "Acme Corp") ++torn;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn.load(), 0);
}

using AgentDat = test::AgentSandbox;

TEST_F(AgentDat, FreshFileHoldsTwoZeroSlotsAndThePathLengthAndIsUpdatedInPlace) {
  int32_t value = 0;
  EXPECT_EQ(loadParameter(1, &value), kParameterFailed);  // no file yet
  ASSERT_EQ(saveParameter(2, 0x11223344), kParameterOk);
  EXPECT_EQ(readCacheFile("agent.dat"), bytes({0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11}) +
                                            test::le32(cachePath("agent.dat").size()));
  EXPECT_EQ(loadParameter(4, &value), kParameterFailed);  // past the end
  for (auto [id, v] : {std::pair{4, -2}, {3, 600}, {0, 9}})
    ASSERT_EQ(saveParameter(id, v), kParameterOk);
  EXPECT_EQ(readCacheFile("agent.dat"), bytes({9, 0, 0, 0, 0x44, 0x33, 0x22, 0x11,  //
                                               0x58, 0x02, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}));
  ASSERT_EQ(loadParameter(1, &value), kParameterOk);  // ids 1 and 2 share a slot
  EXPECT_EQ(value, 0x11223344);
  EXPECT_EQ(saveParameter(-1, 1), kParameterFailed);
  std::filesystem::remove_all(root_.file("var/qsam/cache"));
  EXPECT_EQ(saveParameter(1, 1), kParameterFailed);
}

using PluginDat = AgentInfoTest;

TEST_F(PluginDat, EncodesTheRecordAtItsOffsets) {
  slm::AgentInfo record{.agentId = 0x0102030405060708,
                        .divisionId = -2,
                        .hostName = "host",
                        .osDescription = "Linux 6.1",
                        .ipAddress = "10.0.0.1",
                        .memoryMiB = 2048,
                        .diskCount = 3,
                        .cpuCount = 4,
                        .cpuCountCopy = 5,
                        .nodeId = 0x1122334455,
                        .tag = "TAG",
                        .driverName = "kvdkagent-1",
                        .customer = "not stored",
                        .driverStatus = 0x7F};
  memset(record.systemTuple, 'T', sizeof record.systemTuple);

  const std::string expected =
      bytes({1, 0, 0, 0, 2, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1}) +             // version, agent id
      bytes({0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}) +             // division id
      field("host", 256) + field("Unix", 256) + field("Linux 6.1", 256) +   // 24, 280, 536
      field("10.0.0.1", 16) + bytes({0x00, 0x08, 0, 0, 3, 0, 0, 0}) +       // 792, memory, disks
      bytes({0xFF, 0xFF, 0xFF, 0xFF, 4, 0, 0, 0, 5, 0, 0, 0}) +             // reserved, cpus
      bytes({0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0}) + field("TAG", 256) +  // node id, 836
      field("kvdkagent-1", 256) + std::string(300, 'T');                    // 1092, 1348
  uint8_t out[kPluginDatSize];
  encodePluginData(CacheVersion{1, 2}, record, out);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), sizeof out), expected);
}

TEST_F(PluginDat, StoresTheLiveRecordAndRecognisesItsTuple) {
  init();
  setText(kAgentHostName, "a-much-longer-host-name");
  setText(kAgentHostName, "node7");
  ASSERT_EQ(storePluginData(), kPluginStored);
  const std::string file = readCacheFile("plugin.dat");
  EXPECT_EQ(file.substr(8, 8), bytes({0xCB, 0x04, 0xFB, 0x71, 0x1F, 0x01, 0, 0}));
  EXPECT_EQ(file.substr(24, 256), field("node7", 256));  // nothing left of the longer name
  EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleMatches);

  // The driver name comes back from the file, and a changed tuple is noticed.
  std::string changed = file.substr(0, 1092) + field("kvdkagent-old", 256) + file.substr(1348);
  changed[1348 + 100] ^= 0x01;
  writeCacheFile("plugin.dat", changed);
  EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleDiffers);
  EXPECT_EQ(text(kAgentDriverName), "kvdkagent-old");

  const std::tuple<std::string, const char*, bool> unreadable[] = {
      {file.substr(0, 1000), "Reading the friver name from file ", true},
      {bytes({1, 0, 0, 0, 3, 0, 0, 0}) + file.substr(8), "ERROR - Checking cache version", false},
  };
  for (const auto& [content, message, kept] : unreadable) {
    writeCacheFile("plugin.dat", content);
    EXPECT_EQ(isToBeUpdatedSlmTuple(), kTupleUnreadable);
    EXPECT_TRUE(traced(message)) << trace();
    EXPECT_EQ(test::fileExists(cachePath("plugin.dat")), kept);
  }
}

TEST_F(PluginDat, FailedStoreLeavesNoFile) {
  init();
  // The file is written under its new name first; /dev/full there stands for a full disk.
  std::filesystem::create_symlink("/dev/full", cachePath("plugin.dat.new"));
  EXPECT_EQ(storePluginData(), kPluginNotStored);
  // The stream holds every item until the final flush, so a full disk shows at the last one.
  EXPECT_TRUE(
      traced("\n  ERROR - Writing the slm system tuple to file " + cachePath("plugin.dat") + "\n"))
      << trace();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(cachePath("plugin.dat"))));
  EXPECT_FALSE(
      std::filesystem::exists(std::filesystem::symlink_status(cachePath("plugin.dat.new"))));
}

TEST_F(PluginDat, EachItemThatCannotBeWrittenIsNamed) {
  const std::pair<size_t, const char*> cases[] = {
      {3, "ERROR - Writing the plug major version to file P"},
      {4, "ERROR - Writing the plug minor version to file P"},
      {kPluginTupleOffset - 1, "ERROR - Writing the plugin data to file P"},
      {kPluginDatSize - 1, "ERROR - Writing the slm system tuple to file P"},
  };
  uint8_t image[kPluginDatSize] = {};
  for (const auto& [room, failure] : cases) {
    restartTrace();
    // An unbuffered stream with room for `room` bytes fails the first item that does not fit.
    std::vector<char> memory(room);
    FILE* file = fmemopen(memory.data(), room, "w");
    ASSERT_NE(file, nullptr);
    setvbuf(file, nullptr, _IONBF, 0);
    EXPECT_FALSE(writePluginImage(image, file, "P"));
    fclose(file);
    EXPECT_TRUE(traced(std::string("\n  ") + failure + "\n")) << trace();
  }
}

}  // namespace
}  // namespace slm
