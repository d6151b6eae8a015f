#include "agent_core/invthr.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/support/bytes.h"
#include "service/threads.h"
#include "support/service_sandbox.h"
#include "support/wait_until.h"

namespace slm {
namespace {

using test::readFile;

constexpr AgentTime kNow = 1700000000;

InventoryRecord scanned(const std::string& name) {
  InventoryRecord record{};
  snprintf(record.name, sizeof record.name, "%s", name.c_str());
  record.size = 1000;
  for (char* text : {record.directory, record.text1, record.text2, record.text3, record.text4}) {
    text[0] = ' ';
  }
  return record;
}

std::string encoded(const InventoryRecord& record) {
  uint8_t raw[kInventoryRecordSize];
  encodeInventoryRecord(record, raw);
  return std::string(reinterpret_cast<char*>(raw), sizeof raw);
}

// Agent time read as universal time while it lives.
class UniversalTime {
 public:
  UniversalTime() {
    if (const char* old = getenv("TZ")) saved_ = old;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~UniversalTime() {
    saved_.empty() ? unsetenv("TZ") : setenv("TZ", saved_.c_str(), 1);
    tzset();
  }

 private:
  std::string saved_;
};

class InventorySender : public test::ServiceSandbox {
 protected:
  void SetUp() override {
    ServiceSandbox::SetUp();
    ASSERT_EQ(slmAgentInitInventory(), 0);
  }
  void TearDown() override {
    if (inv_thread != nullptr) {
      stopSlmThread(inv_thread);
      cleanSlmThread(inv_thread);
      inv_thread = nullptr;
    }
    if (list_ != nullptr) deleteList(list_);
    ServiceSandbox::TearDown();
  }
  // The agent plugged in on a server that knows it; `members` add to the scenario.
  void servePluggedIn(const std::string& members = "") {
    serve(R"({"require_plugin": false)" + (members.empty() ? "" : ", " + members) + "}");
    ASSERT_EQ(setAgentIntValue(kAgentPluggedIn, 1), kAgentValueOk);
  }
  SlmList* records(int count) {
    list_ = createList(sizeof(InventoryRecord));
    for (int i = 0; i < count; ++i) {
      const InventoryRecord record = scanned("prog" + std::to_string(i));
      EXPECT_EQ(append(list_, &record), kListOk);
    }
    return list_;
  }
  std::vector<std::string> rows(const std::string& select) const { return server_->rows(select); }
  size_t uploads() const { return rows("SELECT id FROM requests WHERE service = 7").size(); }

  SlmList* list_ = nullptr;
};

TEST_F(InventorySender, SendsPacketsOfTheirSizeWithTheLastFlagOnTheLastOnly) {
  const struct {
    int records;
    int packetSize;
    std::vector<std::string> packets;
    std::vector<std::string> lastFlags;
  } cases[] = {
      {60, 25, {"1|25", "2|25", "3|10"}, {"0", "0", "1"}},
      // A last packet that is full is still the last.
      {50, 10, {"1|10", "2|10", "3|10", "4|10", "5|10"}, {"0", "0", "0", "0", "1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.records);
    servePluggedIn();
    ASSERT_EQ(setAgentIntValue(kAgentPacketSize, c.packetSize), kAgentValueOk);
    ASSERT_EQ(slmAgentInitInventory(), 0);
    if (list_ != nullptr) deleteList(list_);
    EXPECT_EQ(sendPacketInventory(nullptr, records(c.records), kNow - 50, 0), kInventoryDelivered);
    EXPECT_EQ(
        rows("SELECT packet, count(*) FROM inventory_records GROUP BY packet ORDER BY packet"),
        c.packets);
    EXPECT_EQ(rows("SELECT scan_time, packets, records, complete FROM inventories"),
              std::vector<std::string>{"1699999950000|" + std::to_string(c.packets.size()) + "|" +
                                       std::to_string(c.records) + "|1"});
    // The body's fields: agent id, inventory, scan time, last.
    EXPECT_EQ(
        rows("SELECT instr(CAST(raw AS TEXT), char(13, 10) || char(116, 114, 117, 101) || "
             "char(13, 10) || char(60, 102)) > 0 FROM requests WHERE service = 7 ORDER BY id"),
        c.lastFlags);
    expectConforming();
  }
}

TEST_F(InventorySender, GivesUpAfterFiveFailedSendsOverTheWholeInventory) {
  // A packet that keeps failing is sent five times in all.
  servePluggedIn(R"("services": {"upload": {"result": -999}})");
  EXPECT_EQ(sendPacketInventory(nullptr, records(60), kNow, 0), kInventoryNotDelivered);
  EXPECT_EQ(uploads(), 5u);
  EXPECT_TRUE(traced("ERROR - Inventory not sent, error packet 1, attempt 5"));
  EXPECT_FALSE(traced("INV - Attempt 5"));
}

TEST_F(InventorySender, ObsoleteScanEndsTheInventoryAndUnknownAgentUnplugs) {
  struct Case {
    int result;
    int delivered;
    int pluggedIn;
    const char* trace;
  };
  const Case cases[] = {
      {-4, kInventoryDelivered, 1, "ERROR - Inventory not successfully stored from server"},
      {-1, kInventoryNotDelivered, 0, "ERROR - Unknown angent or division, packet 1"},
      {-2, kInventoryNotDelivered, 0, "ERROR - Unknown angent or division, packet 1"},
  };
  for (const Case& c : cases) {
    servePluggedIn(R"("services": {"upload": {"result": )" + std::to_string(c.result) + "}}");
    EXPECT_EQ(sendPacketInventory(nullptr, records(30), kNow, 0), c.delivered) << c.result;
    deleteList(list_);
    list_ = nullptr;
    EXPECT_EQ(uploads(), 1u) << c.result;
    int64_t plugged = -1;
    ASSERT_EQ(getAgentIntValue(kAgentPluggedIn, &plugged), kAgentValueOk);
    EXPECT_EQ(plugged, c.pluggedIn) << c.result;
    EXPECT_TRUE(traced(c.trace)) << c.result;
  }
}

TEST_F(InventorySender, UnansweredPacketTravelsAgainWithTheNext) {
  // A bad-node answer is neither a delivery nor a failure.
  servePluggedIn(R"("services": {"upload": {"result": -3, "count": 1}})");
  EXPECT_EQ(sendPacketInventory(nullptr, records(30), kNow, 0), kInventoryDelivered);
  EXPECT_EQ(rows("SELECT packet, count(*) FROM inventory_records GROUP BY packet ORDER BY packet"),
            (std::vector<std::string>{"1|25", "2|30"}));
}

TEST_F(InventorySender, ReadsOnlyWholeUndamagedRecordsFromTheScanFile) {
  const std::string good = encoded(scanned("good"));
  std::string damagedDirectory = encoded(scanned("bad1"));
  damagedDirectory[kInventoryDirectoryOffset + 1] = 'x';  // behind the directory's terminator
  std::string unterminated = encoded(scanned("bad2"));
  unterminated.replace(0, kFileNameSize, std::string(kFileNameSize, 'n'));
  std::string nonZero = encoded(scanned("bad3"));
  nonZero[kFileAttribute1Offset] = 1;
  struct Case {
    std::string content;
    size_t records;
  };
  const Case cases[] = {
      {"", 0},
      {good.substr(0, 959), 0},
      {good + good + good.substr(0, 100), 2},
      {damagedDirectory + good + unterminated + nonZero + good, 2},
      {std::string(960 * 3, '\xff'), 0},
      {std::string(960, '\0') + good, 1},
  };
  for (const Case& c : cases) {
    const std::string path = writeCacheFile("records.bin", c.content);
    FILE* file = fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    size_t count = 0;
    InventoryRecord record;
    while (getNextFromFile(file, &record)) {
      EXPECT_STREQ(record.name, "good");
      ++count;
    }
    fclose(file);
    EXPECT_EQ(count, c.records) << c.content.size();
  }
}

TEST_F(InventorySender, ScanFileTooLargeForItsFileSystemIsNotWrittenNorIsAnOlderOneLeft) {
  root_.makeDirs("small");
  const std::string small = root_.file("small");
  if (mount("scan-test", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no file system can be mounted here: " << strerror(errno);
  }
  const std::string path = small + "/" + kScanFileName;
  root_.writeFile("small/scan.dat", "waiting");
  // 64 KiB hold 68 records, not 100.
  EXPECT_FALSE(writeScanFile(path.c_str(), records(100), kNow));
  EXPECT_TRUE(traced("ERROR - No room for inventory file " + path + ": 96004 bytes, "));
  // The waiting result is older than the scan that could not be written: it must not pass for it.
  EXPECT_FALSE(test::fileExists(path));
  EXPECT_FALSE(test::fileExists(path + ".new"));
  deleteList(list_);
  EXPECT_TRUE(writeScanFile(path.c_str(), records(30), kNow));
  EXPECT_EQ(readFile(path).size(), 4u + 30 * kInventoryRecordSize);
  umount2(small.c_str(), MNT_DETACH);
}

TEST_F(InventorySender, StopSavesTheSecondsToSendAndTheNextStartKeepsThem) {
  ASSERT_EQ(saveParameter(kParameterSecondsToSend, 1000), kParameterOk);
  ASSERT_EQ(slmAgentInitInventory(), 0);
  EXPECT_TRUE(traced("INV - Previous send inventory period 1000, actual Max 10800"));
  EXPECT_EQ(giveSecondsToEvent(inventorySendEvent()), 1000);
  clock_.advance(400);
  EXPECT_EQ(slmAgentInventoryStop(), kParameterOk);
  clock_.advance(5000);
  ASSERT_EQ(slmAgentInitInventory(), 0);
  const CalendarEvent event = inventorySendEvent();
  EXPECT_EQ(event.start, clock_.now() + 600);
  EXPECT_EQ(event.period, 600);
  // Nothing saved (or an ended send): the send is due at once.
  ASSERT_EQ(saveParameter(kParameterSecondsToSend, -1), kParameterOk);
  ASSERT_EQ(slmAgentInitInventory(), 0);
  EXPECT_EQ(giveSecondsToEvent(inventorySendEvent()), 0);
}

// The thread: a waiting "scan.dat" is sent when due, and kept when the server refuses it.
class InventoryThread : public InventorySender {
 protected:
  void startThread(int32_t secondsToScan) {
    // A daily scan `secondsToScan` from now; with the clock held the thread never reaches it.
    uint8_t block[kAgentScanRuleSize];
    putFixed32(block, static_cast<uint32_t>(kNow - kSecondsPerDay + secondsToScan));
    ASSERT_EQ(setAgentStructValue(kAgentScanStart, block), kAgentValueOk);
    putFixed32(block, kDateRuleDays);
    putFixed32(block + 4, 1);
    ASSERT_EQ(setAgentStructValue(kAgentScanRule, block), kAgentValueOk);
    setWorkerFunctions(WorkerSlot::kInventory, {});
    inv_thread = createSlmThread(slmAgentInitInventory, slmAgentInventoryFunction,
                                 slmAgentInventoryStop, slmAgentCleanupInventory);
    ASSERT_NE(inv_thread, nullptr);
    ASSERT_EQ(startSlmThread(inv_thread), kSlmThreadOk);
  }
  std::string scanFile(int records) {
    std::string content = test::le32(kNow - 3600);
    for (int i = 0; i < records; ++i) content += encoded(scanned("p" + std::to_string(i)));
    return writeCacheFile(kScanFileName, content);
  }

  UniversalTime universal_;
};

TEST_F(InventoryThread, DeliversTheWaitingScanFileAndRemovesIt) {
  servePluggedIn();
  const std::string path = scanFile(30);
  startThread(4);
  ASSERT_TRUE(test::waitUntil([&] { return !test::fileExists(path); }));
  EXPECT_EQ(rows("SELECT scan_time, packets, records, complete FROM inventories"),
            std::vector<std::string>{"1699996400000|2|30|1"});
  ASSERT_TRUE(test::waitUntil([&] { return traced("waiting to do scan in 4 seconds"); }));
  EXPECT_LT(giveSecondsToEvent(inventorySendEvent()), 0);  // nothing more to send
}

TEST_F(InventoryThread, AWaitingScanGoesBeforeAScanDueTheSameSecondAndNoScanIsRepeated) {
  servePluggedIn();
  scanFile(3);
  // The scan and the waiting send are both due now, and the clock stays in this second.
  startThread(0);
  ASSERT_TRUE(test::waitUntil([&] { return !rows("SELECT id FROM inventories").empty(); }));
  EXPECT_EQ(rows("SELECT scan_time, records FROM inventories ORDER BY id LIMIT 1"),
            std::vector<std::string>{"1699996400000|3"});
  // After its pause the thread looks at the schedule again rather than scanning once more.
  auto pauses = [&] {
    const std::string text = trace();
    size_t count = 0;
    for (size_t at = text.find("waiting to do scan in 1 seconds"); at != std::string::npos;
         at = text.find("waiting to do scan in 1 seconds", at + 1)) {
      ++count;
    }
    return count;
  };
  ASSERT_TRUE(test::waitUntil([&] { return pauses() >= 3; }));
  stopSlmThread(inv_thread);
  const std::string text = trace();
  EXPECT_EQ(text.find("OK - Disks scan completes"), text.rfind("OK - Disks scan completes"));
}

TEST_F(InventoryThread, KeepsTheScanFileWhenEveryAttemptFails) {
  servePluggedIn(R"("services": {"upload": {"result": -999}})");
  const std::string path = scanFile(10);
  // Four seconds to the scan: the retry wait is 4 / 5 = 0 seconds, then the thread waits for it.
  startThread(4);
  ASSERT_TRUE(test::waitUntil([&] { return traced("error packet 1, attempt 5"); }));
  stopSlmThread(inv_thread);
  EXPECT_EQ(uploads(), 5u);
  EXPECT_TRUE(test::fileExists(path));
  EXPECT_TRUE(traced("WARNING - Inventory not yet sent"));
}

TEST_F(InventoryThread, AScanFileThatCannotBeOpenedWaitsForALaterPass) {
  servePluggedIn();
  // A socket stands at the file's name: it is there, and no stream can be opened on it.
  const std::string path = cachePath(kScanFileName);
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  startThread(4);
  ASSERT_TRUE(test::waitUntil([&] { return traced("Inventory file not opened"); }));
  EXPECT_TRUE(traced("ERROR - Opening inventory file for sending"));
  EXPECT_TRUE(traced("ERROR - Inventory data not found"));
  stopSlmThread(inv_thread);
  close(sock);
  EXPECT_EQ(uploads(), 0u);
  EXPECT_TRUE(test::fileExists(path));
}

TEST_F(InventoryThread, DropsAScanFileWithoutItsScanTime) {
  servePluggedIn();
  const std::string path = writeCacheFile(kScanFileName, "\x01\x02");
  startThread(4);
  ASSERT_TRUE(test::waitUntil([&] { return !test::fileExists(path); }));
  EXPECT_EQ(uploads(), 0u);
}

}  // namespace
}  // namespace slm
