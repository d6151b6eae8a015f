#include "agent_core/cache/srvs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/cache_file.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/fake_clock.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::readFile;

std::string le32(uint32_t value) {
  std::string out;
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  return out;
}

std::string field(const std::string& text, size_t size) {
  return text + std::string(size - text.size(), '\0');
}

ServerInfo makeInfo(const std::string& host, const std::string& path, uint16_t port,
                    int32_t level = 0) {
  ServerInfo info{};
  host.copy(info.address.host, host.size());
  path.copy(info.address.path, path.size());
  info.address.port = port;
  info.securityLevel = level;
  return info;
}

// One record of "server.dat" written out from the layout table: handle, host, path, port,
// security level, attribute, active, used and its padding, scope, lock, next, previous.
std::string recordBytes(const std::string& host, const std::string& path, uint32_t port,
                        uint32_t level, uint32_t active, uint8_t used, uint32_t scope) {
  return le32(0) + field(host, 256) + field(path, 256) + le32(port) + le32(level) + le32(0) +
         le32(active) + std::string(1, static_cast<char>(used)) + std::string(3, '\0') +
         le32(scope) + le32(0) + le32(0) + le32(0);
}

std::string headerBytes(uint32_t timestamp, const std::string& preferred) {
  return le32(1) + le32(2) + le32(timestamp) + le32(0) + field(preferred, 256);
}

// Owns a list of ServerAddress records, as the topology service hands them over.
class AddressList {
 public:
  explicit AddressList(std::initializer_list<const char*> hosts)
      : list_(createList(sizeof(ServerAddress))) {
    for (const char* host : hosts) {
      ServerInfo info = makeInfo(host, std::string("/") + host, 9000);
      EXPECT_EQ(append(list_, &info.address), kListOk);
    }
  }
  ~AddressList() { deleteList(list_); }
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;
  SlmList* get() { return list_; }

 private:
  SlmList* list_;
};

class ServerCache : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
  }
  void TearDown() override {
    if (created_) deleteServersCache();
    stopTrace();
    setTraceLevel(-1);
    setAgentRoot("");
  }

  // A cache holding only the configured server; with `keepFile` it also reads "server.dat".
  void create(const char* preferred = "alpha", int32_t level = 0, bool keepFile = false) {
    if (created_) deleteServersCache();
    created_ = false;
    if (!keepFile) remove(serverFile().c_str());
    ServerInfo configured = makeInfo(preferred, "/rt", 8080, level);
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    created_ = true;
  }
  // Stores the cache and builds it again from the file, as a restart does.
  void restart(const char* preferred = "alpha") {
    ASSERT_TRUE(created_);
    deleteServersCache();
    created_ = false;
    create(preferred, 0, true);
  }

  std::string serverFile() const { return root_.file("var/qsam/cache/server.dat"); }
  std::string trace() const { return readFile(root_.file("trace.log")); }
  bool traced(const std::string& text) const { return trace().find(text) != std::string::npos; }

  // Host names of one list, head to tail.
  std::vector<std::string> listHosts(int32_t scope) const {
    std::vector<std::string> hosts;
    ServerHandle handle = nullptr;
    ServerInfo info;
    // The walk from the preferred server covers every list when the cache scope is 2.
    while (getNextServer(&handle, kAnyServer, &info) == kSrvsOk) {
      if (handle->scope == scope) hosts.push_back(info.address.host);
    }
    return hosts;
  }
  std::vector<std::string> walk(int filter = kAnyServer) const {
    std::vector<std::string> hosts;
    ServerHandle handle = nullptr;
    ServerInfo info;
    while (getNextServer(&handle, filter, &info) == kSrvsOk) hosts.push_back(info.address.host);
    return hosts;
  }
  ServerHandle find(const char* host) const {
    ServerHandle handle = nullptr;
    EXPECT_EQ(findServerbyName(host, &handle), kSrvsOk) << host;
    return handle;
  }
  void add(const char* host, int32_t scope) {
    ServerInfo info = makeInfo(host, std::string("/") + host, 9000);
    ASSERT_EQ(createNewServer(&info, scope), kSrvsOk);
  }

  test::TempDir root_;
  bool created_ = false;
};

using Hosts = std::vector<std::string>;

TEST_F(ServerCache, StoredFileFollowsTheLayout) {
  test::FakeClock clock(0x65000000);
  create("alpha", 1);
  AddressList division{"d1.example", "d2.example"};
  AddressList enterprise{"e1.example"};
  ASSERT_EQ(updateServerCache(nullptr, division.get(), enterprise.get()), kSrvsOk);
  ASSERT_EQ(find("d1.example")->scope, kScopeDivision);
  serverNotResponding(find("d1.example"));
  ASSERT_EQ(storeServerList(), kSrvsOk);

  // The division list holds d2 before d1: new records go to the head. Every record took the
  // preferred server's security level in the merge.
  std::string expected = headerBytes(0x65000000, "alpha") + le32(2) + le32(1) +
                         recordBytes("d2.example", "/d2.example", 9000, 1, 1, 1, 1) +
                         recordBytes("d1.example", "/d1.example", 9000, 1, 0, 1, 1) +
                         recordBytes("e1.example", "/e1.example", 9000, 1, 1, 1, 2);
  EXPECT_EQ(readFile(serverFile()), expected);
  EXPECT_TRUE(traced("SRV - Data written into file " + serverFile()));

  ServerRecord decoded{};
  decodeServerRecord(reinterpret_cast<const uint8_t*>(expected.data()) + 280 + 552, &decoded);
  EXPECT_STREQ(decoded.info.address.host, "d1.example");
  EXPECT_STREQ(decoded.info.address.path, "/d1.example");
  EXPECT_EQ(decoded.info.address.port, 9000);
  EXPECT_EQ(decoded.info.securityLevel, 1);
  EXPECT_EQ(decoded.active, 0);
  EXPECT_EQ(decoded.used, 1);
  EXPECT_EQ(decoded.scope, kScopeDivision);
}

TEST_F(ServerCache, EachLoadReversesTheListsAndRestoresTheCounts) {
  create();
  add("d1", kScopeDivision);
  add("d2", kScopeDivision);
  add("d3", kScopeDivision);
  add("e1", kScopeEnterprise);
  add("e2", kScopeEnterprise);
  serverNotResponding(find("d2"));
  ASSERT_EQ(listHosts(kScopeDivision), (Hosts{"d3", "d2", "d1"}));

  restart();
  EXPECT_TRUE(traced("SRV - The server list has been read from file " + serverFile()));
  EXPECT_EQ(listHosts(kScopeDivision), (Hosts{"d1", "d2", "d3"}));
  EXPECT_EQ(listHosts(kScopeEnterprise), (Hosts{"e1", "e2"}));
  EXPECT_EQ(walk(), (Hosts{"alpha", "d1", "d2", "d3", "e1", "e2"}));
  EXPECT_EQ(getServersNumber(kActiveCount), 5);
  EXPECT_EQ(getServersNumber(kNotRespondingCount), 1);
  EXPECT_EQ(testActive(find("d2")), 0);

  restart();
  EXPECT_EQ(listHosts(kScopeDivision), (Hosts{"d3", "d2", "d1"}));
  EXPECT_EQ(listHosts(kScopeEnterprise), (Hosts{"e2", "e1"}));
}

TEST_F(ServerCache, LoadKeepsTheRecordsBeforeADamagedOne) {
  std::string full =
      headerBytes(0, "alpha") + le32(2) + le32(1) + recordBytes("d1", "/d1", 9001, 0, 1, 1, 1) +
      recordBytes("d2", "/d2", 9002, 0, 1, 1, 1) + recordBytes("e1", "/e1", 9003, 0, 1, 1, 2);

  struct Case {
    size_t length;
    Hosts walk;
    const char* message;
  };
  const Case cases[] = {
      {full.size(), {"alpha", "d2", "d1", "e1"}, "SRV - The server list has been read"},
      {full.size() - 1, {"alpha", "d2", "d1"}, "ERROR - reading from cache file"},
      {280 + 552 + 100, {"alpha", "d1"}, "ERROR - reading from cache file"},
      {276, {"alpha"}, "SRV CACHE - no Servers file"},  // the enterprise count is short
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    if (created_) deleteServersCache();
    created_ = false;
    root_.writeFile("var/qsam/cache/server.dat", full.substr(0, c.length));
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
    create("alpha", 0, true);
    EXPECT_EQ(walk(), c.walk);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(getServersNumber(kActiveCount), static_cast<int>(c.walk.size()));
  }

  // A file written for another version is thrown away; the configured server remains.
  deleteServersCache();
  created_ = false;
  std::string foreign = le32(1) + le32(3) + full.substr(8);
  root_.writeFile("var/qsam/cache/server.dat", foreign);
  create("alpha", 0, true);
  EXPECT_EQ(walk(), (Hosts{"alpha"}));
  EXPECT_TRUE(traced("WARNING - The version in file " + serverFile() +
                     " is not supported or the runtime server has been changed."));
}

TEST_F(ServerCache, WalkStopsAtTheCacheScope) {
  create();
  add("d1", kScopeDivision);
  add("d2", kScopeDivision);
  add("e1", kScopeEnterprise);
  struct Case {
    int32_t scope;
    Hosts walk;
  };
  const Case cases[] = {
      {0, {"alpha"}},
      {1, {"alpha", "d2", "d1"}},
      {2, {"alpha", "d2", "d1", "e1"}},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(setScope(c.scope), kSrvsOk);
    EXPECT_EQ(getScope(), c.scope);
    EXPECT_EQ(walk(), c.walk) << "cache scope " << c.scope;
  }
  EXPECT_TRUE(traced("setScope with scope= 1"));

  // Scope 1 with an empty division list: the walk jumps from the preferred server straight to
  // the enterprise list.
  removeServer(find("d1"));
  removeServer(find("d2"));
  ASSERT_EQ(setScope(1), kSrvsOk);
  EXPECT_EQ(walk(), (Hosts{"alpha", "e1"}));
  ASSERT_EQ(setScope(0), kSrvsOk);
  EXPECT_EQ(walk(), (Hosts{"alpha"}));

  // Without a preferred server there is no walk, whatever the other lists hold.
  ASSERT_EQ(setScope(2), kSrvsOk);
  ASSERT_EQ(moveServer(find("alpha"), kScopeDivision), kSrvsOk);
  ServerHandle handle = nullptr;
  ServerInfo info;
  EXPECT_EQ(getNextServer(&handle, kAnyServer, &info), kSrvsNotFound);
  EXPECT_EQ(handle, nullptr);
}

TEST_F(ServerCache, WalkFiltersByContactOutcome) {
  create();
  add("d1", kScopeDivision);
  add("d2", kScopeDivision);
  add("e1", kScopeEnterprise);
  serverNotResponding(find("alpha"));
  serverNotResponding(find("d1"));
  EXPECT_EQ(walk(kActiveServers), (Hosts{"d2", "e1"}));
  EXPECT_EQ(walk(kNotRespondingServers), (Hosts{"alpha", "d1"}));

  // A server marked active twice has active value 2 and is neither "active" nor "not responding"
  // for the filters.
  serverIsActive(find("d2"));
  EXPECT_EQ(testActive(find("d2")), 2);
  EXPECT_EQ(walk(kActiveServers), (Hosts{"e1"}));

  // The handle carries the walk: a caller that keeps it goes on after the last server it got.
  ServerHandle handle = nullptr;
  ServerInfo info;
  ASSERT_EQ(getNextServer(&handle, kNotRespondingServers, &info), kSrvsOk);
  EXPECT_STREQ(info.address.host, "alpha");
  EXPECT_EQ(info.address.port, 8080);
  ASSERT_EQ(getNextServer(&handle, kNotRespondingServers, &info), kSrvsOk);
  EXPECT_STREQ(info.address.host, "d1");
  EXPECT_EQ(getNextServer(&handle, kNotRespondingServers, &info), kSrvsNotFound);
}

TEST_F(ServerCache, ContactOutcomesKeepTheActiveCount) {
  create();
  add("d1", kScopeDivision);
  add("e1", kScopeEnterprise);
  ASSERT_EQ(getServersNumber(kActiveCount), 3);

  ServerHandle d1 = find("d1");
  serverNotResponding(d1);
  serverNotResponding(d1);  // already not responding: nothing changes
  EXPECT_EQ(testActive(d1), 0);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);
  EXPECT_EQ(getServersNumber(kNotRespondingCount), 1);
  EXPECT_EQ(getServersNumber(0), 3);

  // Outside the cache scope a contact changes the record, not the count.
  ASSERT_EQ(setScope(1), kSrvsOk);
  EXPECT_EQ(getServersNumber(kActiveCount), 1);  // alpha; e1 lies beyond the scope
  ServerHandle e1 = find("e1");
  serverNotResponding(e1);
  EXPECT_EQ(testActive(e1), 0);
  EXPECT_EQ(getServersNumber(kActiveCount), 1);
  serverIsActive(d1);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);
  serverIsActive(e1);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);

  // The recount counts only used records.
  setAllUnused(kScopeDivision);
  ASSERT_EQ(setScope(2), kSrvsOk);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);  // alpha and e1

  // Removing an active record lowers the count, a not responding one does not.
  serverNotResponding(e1);
  EXPECT_EQ(getServersNumber(kActiveCount), 1);
  removeServer(e1);
  EXPECT_EQ(getServersNumber(kActiveCount), 1);
  add("d9", kScopeDivision);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);
  removeServer(find("d9"));
  EXPECT_EQ(getServersNumber(kActiveCount), 1);

  for (int32_t bad : {3, -1}) {
    EXPECT_EQ(setScope(bad), kSrvsFailed);
    EXPECT_TRUE(traced("SRV CACHE - Bad scope value " + std::to_string(bad)));
  }
  EXPECT_EQ(getScope(), 2);
}

TEST_F(ServerCache, ContactsFromManyReadersAreAllCounted) {
  create();
  add("d1", kScopeDivision);
  ServerHandle d1 = find("d1");
  serverNotResponding(d1);
  ASSERT_EQ(getServersNumber(kActiveCount), 1);

  // Contacts are recorded under the read lock only, from several threads at once.
  constexpr int kThreads = 8;
  constexpr int kContacts = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([d1] {
      for (int i = 0; i < kContacts; ++i) {
        if (readLockSrvsCache() != kSrvsOk) return;
        serverIsActive(d1);
        releaseLockSrvsCache();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(testActive(d1), kThreads * kContacts);
  EXPECT_EQ(getServersNumber(kActiveCount), 1 + kThreads * kContacts);
}

TEST_F(ServerCache, TopologyAddsMovesAndDropsServers) {
  test::FakeClock clock(1700000000);
  create();
  add("old", kScopeDivision);
  add("d1", kScopeEnterprise);
  EXPECT_EQ(getSrvsCacheUpdateTime(), 0u);

  AddressList division{"d1", "d2"};
  AddressList enterprise{"e1", "alpha"};
  ASSERT_EQ(updateServerCache(nullptr, division.get(), enterprise.get()), kSrvsOk);
  EXPECT_EQ(getSrvsCacheUpdateTime(), 1700000000u);
  // The preferred server stays preferred although the topology lists it in the enterprise.
  EXPECT_EQ(listHosts(kScopePreferred), (Hosts{"alpha"}));
  EXPECT_EQ(listHosts(kScopeDivision), (Hosts{"d2", "d1"}));
  EXPECT_EQ(listHosts(kScopeEnterprise), (Hosts{"e1"}));
  EXPECT_TRUE(traced("SRV CACHE - Server 'd1' moved to scope 1"));
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'd2', scope 1"));
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'e1', scope 2"));
  EXPECT_FALSE(traced("moved to scope 2"));
  ServerHandle gone = nullptr;
  EXPECT_EQ(findServerbyName("old", &gone), kSrvsNotFound);
}

TEST_F(ServerCache, TopologySweepStopsAtAnEmptyDivisionList) {
  struct Case {
    const char* name;
    bool divisionBefore;
    Hosts remaining;
  };
  const Case cases[] = {
      {"division list held a record", true, {"alpha"}},
      {"division list was empty", false, {"alpha", "e2", "e1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    create();
    if (c.divisionBefore) add("d1", kScopeDivision);
    add("e1", kScopeEnterprise);
    add("e2", kScopeEnterprise);
    AddressList division{};
    AddressList enterprise{};
    ASSERT_EQ(updateServerCache(nullptr, division.get(), enterprise.get()), kSrvsOk);
    EXPECT_EQ(walk(), c.remaining);
    EXPECT_EQ(getServersNumber(kActiveCount), static_cast<int>(c.remaining.size()));
  }
}

TEST_F(ServerCache, TopologyReplacesAVanishedPreferredServer) {
  struct Case {
    const char* name;
    std::initializer_list<const char*> division;
    std::initializer_list<const char*> enterprise;
    const char* preferred;
    const char* message;
  };
  const Case cases[] = {
      {"division head", {"d1", "d2"}, {"e1"}, "d2", "Using the division server d2 as preferred"},
      {"enterprise head", {}, {"e1", "e2"}, "e2", "Using the enterprise server e2 as preferred"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    create("alpha", 2);
    // The configured server is named as preferred but by a new name, so the old record goes.
    ServerInfo renamed = makeInfo("gone", "/rt", 8080, 2);
    AddressList division{c.division};
    AddressList enterprise{c.enterprise};
    ASSERT_EQ(updateServerCache(&renamed, division.get(), enterprise.get()), kSrvsOk);
    ASSERT_EQ(walk().front(), "gone");
    removeServer(find("gone"));

    // The next topology names no preferred server: the old one is kept if it exists, else the
    // head of the division list, or of the enterprise list, takes its place.
    AddressList again{c.division};
    AddressList againEnterprise{c.enterprise};
    ASSERT_EQ(updateServerCache(nullptr, again.get(), againEnterprise.get()), kSrvsOk);
    EXPECT_TRUE(traced("SRV CACHE - Warning! no preferred server"));
    EXPECT_TRUE(traced(std::string("SRV CACHE - ") + c.message));
    EXPECT_EQ(walk().front(), c.preferred);
    EXPECT_EQ(find(c.preferred)->scope, kScopePreferred);
  }

  // Nothing left to promote.
  create();
  removeServer(find("alpha"));
  AddressList none{};
  EXPECT_EQ(updateServerCache(nullptr, none.get(), none.get()), kSrvsFailed);
}

TEST_F(ServerCache, TopologyWithPreferredAndNoDivisionListSkipsFirstEnterpriseServer) {
  create("alpha", 1);
  ServerInfo preferred = makeInfo("alpha", "/rt", 8080, 2);
  AddressList enterprise{"e1", "e2", "e3"};
  ASSERT_EQ(updateServerCache(&preferred, nullptr, enterprise.get()), kSrvsOk);
  EXPECT_EQ(walk(), (Hosts{"alpha", "e3", "e2"}));
  EXPECT_FALSE(traced("'e1'"));
  // The preferred entry found the preferred record itself and moved it in place.
  EXPECT_TRUE(traced("SRV CACHE - Server 'alpha' moved to scope 0"));

  // With a division list the enterprise list is merged from its first entry, each known server
  // goes to the head, and the sweep hands the preferred record's level to every record it visits.
  AddressList division{"d1"};
  ASSERT_EQ(updateServerCache(&preferred, division.get(), enterprise.get()), kSrvsOk);
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'e1', scope 2"));
  EXPECT_EQ(walk(), (Hosts{"alpha", "d1", "e3", "e2", "e1"}));
  for (const char* host : {"d1", "e1", "e2"}) {
    ServerInfo info;
    ASSERT_EQ(getServerInfo(find(host), &info), kSrvsOk);
    EXPECT_EQ(info.securityLevel, 1) << host;
  }
}

}  // namespace
}  // namespace slm
