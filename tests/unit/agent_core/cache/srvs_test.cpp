#include "agent_core/cache/srvs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/support/slm_list.h"
#include "support/agent_sandbox.h"
#include "support/fake_clock.h"

namespace slm {
namespace {

using test::field;
using test::le32;

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

// A list of ServerAddress records, as the topology service hands them over.
using AddressList = std::unique_ptr<SlmList, void (*)(SlmList*)>;
AddressList addresses(std::initializer_list<const char*> hosts) {
  AddressList list(createList(sizeof(ServerAddress)), deleteList);
  for (const char* host : hosts) {
    ServerInfo info = makeInfo(host, std::string("/") + host, 9000);
    EXPECT_EQ(append(list.get(), &info.address), kListOk);
  }
  return list;
}

class ServerCache : public test::AgentSandbox {
 protected:
  void TearDown() override {
    if (created_) deleteServersCache();
    AgentSandbox::TearDown();
  }

  // A cache holding only the configured server; with `keepFile` it also reads "server.dat".
  void create(const char* preferred = "alpha", int32_t level = 0, bool keepFile = false) {
    if (created_) deleteServersCache();  // stores the cache, as a shut-down does
    created_ = false;
    if (!keepFile) remove(serverFile().c_str());
    ServerInfo configured = makeInfo(preferred, "/rt", 8080, level);
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    created_ = true;
  }
  // Stores the cache and builds it again from the file, as a restart does.
  void restart() { create("alpha", 0, true); }
  // Builds the cache from a "server.dat" holding `content`.
  void loadFrom(const std::string& content) {
    if (created_) deleteServersCache();
    created_ = false;
    writeCacheFile("server.dat", content);
    restartTrace();
    create("alpha", 0, true);
  }

  std::string serverFile() const { return cachePath("server.dat"); }

  // The walk from the preferred server as "preferred | division | enterprise", each list head to
  // tail, so that one string shows both the order and the list of every record.
  std::string walk(int filter = kAnyServer) const {
    std::string out;
    int32_t scope = kScopePreferred;
    ServerHandle handle = nullptr;
    ServerInfo info;
    while (getNextServer(&handle, filter, &info) == kSrvsOk) {
      for (; scope < handle->scope; ++scope) out += " |";
      out += std::string(" ") + info.address.host;
    }
    return out.empty() ? out : out.substr(1);
  }
  ServerHandle find(const char* host) const {
    ServerHandle handle = nullptr;
    EXPECT_EQ(findServerbyName(host, &handle), kSrvsOk) << host;
    return handle;
  }
  void add(std::initializer_list<const char*> hosts, int32_t scope) {
    for (const char* host : hosts) {
      ServerInfo info = makeInfo(host, std::string("/") + host, 9000);
      ASSERT_EQ(createNewServer(&info, scope), kSrvsOk);
    }
  }
  void update(const ServerInfo* preferred, const AddressList& division,
              const AddressList& enterprise, int result = kSrvsOk) {
    ASSERT_EQ(updateServerCache(preferred, division.get(), enterprise.get()), result);
  }

  bool created_ = false;
};

TEST_F(ServerCache, StoredFileFollowsTheLayout) {
  test::FakeClock clock(0x65000000);
  create("alpha", 1);
  update(nullptr, addresses({"d1.example", "d2.example"}), addresses({"e1.example"}));
  serverNotResponding(find("d1.example"));
  ASSERT_EQ(storeServerList(), kSrvsOk);

  // The division list holds d2 before d1: new records go to the head. Every record took the
  // preferred server's security level in the merge.
  std::string expected = headerBytes(0x65000000, "alpha") + le32(2) + le32(1) +
                         recordBytes("d2.example", "/d2.example", 9000, 1, 1, 1, 1) +
                         recordBytes("d1.example", "/d1.example", 9000, 1, 0, 1, 1) +
                         recordBytes("e1.example", "/e1.example", 9000, 1, 1, 1, 2);
  EXPECT_EQ(test::readFile(serverFile()), expected);
  EXPECT_TRUE(traced("SRV - Data written into file " + serverFile()));

  ServerRecord r{};
  decodeServerRecord(reinterpret_cast<const uint8_t*>(expected.data()) + 280 + 552, &r);
  EXPECT_EQ(std::string(r.info.address.host) + " " + r.info.address.path + " " +
                std::to_string(r.info.address.port) + " " + std::to_string(r.info.securityLevel) +
                " " + std::to_string(r.active) + " " + std::to_string(r.used) + " " +
                std::to_string(r.scope),
            "d1.example /d1.example 9000 1 0 1 1");
}

TEST_F(ServerCache, EachLoadReversesTheListsAndRestoresTheCounts) {
  create();
  add({"d1", "d2", "d3"}, kScopeDivision);
  add({"e1", "e2"}, kScopeEnterprise);
  serverNotResponding(find("d2"));
  ASSERT_EQ(walk(), "alpha | d3 d2 d1 | e2 e1");

  restart();
  EXPECT_TRUE(traced("SRV - The server list has been read from file " + serverFile()));
  EXPECT_EQ(walk(), "alpha | d1 d2 d3 | e1 e2");
  EXPECT_EQ(getServersNumber(kActiveCount), 5);
  EXPECT_EQ(getServersNumber(kNotRespondingCount), 1);
  EXPECT_EQ(testActive(find("d2")), 0);

  restart();
  EXPECT_EQ(walk(), "alpha | d3 d2 d1 | e2 e1");
}

TEST_F(ServerCache, LoadKeepsTheRecordsBeforeADamagedOne) {
  std::string full =
      headerBytes(0, "alpha") + le32(2) + le32(1) + recordBytes("d1", "/d1", 9001, 0, 1, 1, 1) +
      recordBytes("d2", "/d2", 9002, 0, 1, 1, 1) + recordBytes("e1", "/e1", 9003, 0, 1, 1, 2);
  struct Case {
    size_t length;
    const char* walk;
    int active;
    const char* message;
  };
  const Case cases[] = {
      {full.size(), "alpha | d2 d1 | e1", 4, "SRV - The server list has been read"},
      {full.size() - 1, "alpha | d2 d1", 3, "ERROR - reading from cache file"},
      {280 + 552 + 100, "alpha | d1", 2, "ERROR - reading from cache file"},
      {276, "alpha", 1, "SRV CACHE - no Servers file"},  // the enterprise count is short
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    loadFrom(full.substr(0, c.length));
    EXPECT_EQ(walk(), c.walk);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(getServersNumber(kActiveCount), c.active);
  }

  // A record whose scope names no list ends the walk at the end of its list.
  loadFrom(headerBytes(0, "alpha") + le32(1) + le32(1) +
           recordBytes("d1", "/d1", 9001, 0, 1, 1, static_cast<uint32_t>(-3)) +
           recordBytes("e1", "/e1", 9003, 0, 1, 1, 2));
  EXPECT_EQ(walk(), "alpha d1");

  // A file written for another version is thrown away; the configured server remains.
  loadFrom(le32(1) + le32(3) + full.substr(8));
  EXPECT_EQ(walk(), "alpha");
  EXPECT_TRUE(traced("WARNING - The version in file " + serverFile() +
                     " is not supported or the runtime server has been changed."));
}

TEST_F(ServerCache, WalkStopsAtTheCacheScope) {
  create();
  add({"d1", "d2"}, kScopeDivision);
  add({"e1"}, kScopeEnterprise);
  const std::pair<int32_t, const char*> cases[] = {
      {0, "alpha"}, {1, "alpha | d2 d1"}, {2, "alpha | d2 d1 | e1"}};
  for (const auto& [scope, expected] : cases) {
    ASSERT_EQ(setScope(scope), kSrvsOk);
    EXPECT_EQ(getScope(), scope);
    EXPECT_EQ(walk(), expected) << "cache scope " << scope;
  }
  EXPECT_TRUE(traced("setScope with scope= 1"));

  // Scope 1 with an empty division list: the walk jumps from the preferred server straight to
  // the enterprise list.
  removeServer(find("d1"));
  removeServer(find("d2"));
  ASSERT_EQ(setScope(1), kSrvsOk);
  EXPECT_EQ(walk(), "alpha | | e1");
  ASSERT_EQ(setScope(0), kSrvsOk);
  EXPECT_EQ(walk(), "alpha");

  // Without a preferred server there is no walk, whatever the other lists hold.
  ASSERT_EQ(setScope(2), kSrvsOk);
  ASSERT_EQ(moveServer(find("alpha"), kScopeDivision), kSrvsOk);
  EXPECT_EQ(walk(), "");
}

TEST_F(ServerCache, WalkFiltersByContactOutcome) {
  create();
  add({"d1", "d2"}, kScopeDivision);
  add({"e1"}, kScopeEnterprise);
  serverNotResponding(find("alpha"));
  serverNotResponding(find("d1"));
  EXPECT_EQ(walk(kActiveServers), "| d2 | e1");
  EXPECT_EQ(walk(kNotRespondingServers), "alpha | d1");

  // A server marked active twice has active value 2 and is neither "active" nor "not responding"
  // for the filters.
  serverIsActive(find("d2"));
  EXPECT_EQ(testActive(find("d2")), 2);
  EXPECT_EQ(walk(kActiveServers), "| | e1");
  EXPECT_EQ(walk(kNotRespondingServers), "alpha | d1");
}

TEST_F(ServerCache, ContactOutcomesKeepTheActiveCount) {
  create();
  add({"d1"}, kScopeDivision);
  add({"e1"}, kScopeEnterprise);
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
  add({"d9"}, kScopeDivision);
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
  add({"d1"}, kScopeDivision);
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
  add({"old"}, kScopeDivision);
  add({"d1"}, kScopeEnterprise);
  EXPECT_EQ(getSrvsCacheUpdateTime(), 0u);

  update(nullptr, addresses({"d1", "d2"}), addresses({"e1", "alpha"}));
  EXPECT_EQ(getSrvsCacheUpdateTime(), 1700000000u);
  // The preferred server stays preferred although the topology lists it in the enterprise.
  EXPECT_EQ(walk(), "alpha | d2 d1 | e1");
  EXPECT_TRUE(traced("SRV CACHE - Server 'd1' moved to scope 1"));
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'd2', scope 1"));
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'e1', scope 2"));
  EXPECT_FALSE(traced("moved to scope 2"));
  ServerHandle gone = nullptr;
  EXPECT_EQ(findServerbyName("old", &gone), kSrvsNotFound);
}

TEST_F(ServerCache, TopologySweepStopsAtAnEmptyDivisionList) {
  // When the division list held a record the sweep clears the enterprise list too; when it was
  // empty the enterprise records survive.
  for (bool divisionBefore : {true, false}) {
    SCOPED_TRACE(divisionBefore);
    create();
    if (divisionBefore) add({"d1"}, kScopeDivision);
    add({"e1", "e2"}, kScopeEnterprise);
    update(nullptr, addresses({}), addresses({}));
    EXPECT_EQ(walk(), divisionBefore ? "alpha" : "alpha | | e2 e1");
    EXPECT_EQ(getServersNumber(kActiveCount), divisionBefore ? 1 : 3);
  }
}

TEST_F(ServerCache, TopologyReplacesAVanishedPreferredServer) {
  struct Case {
    std::initializer_list<const char*> division;
    std::initializer_list<const char*> enterprise;
    const char* walk;
    const char* message;
  };
  const Case cases[] = {
      {{"d1", "d2"}, {"e1"}, "d2 | d1 | e1", "Using the division server d2 as preferred"},
      {{}, {"e1", "e2"}, "e2 | | e1", "Using the enterprise server e2 as preferred"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    create("alpha", 2);
    // The configured server is named as preferred but by a new name, so the old record goes.
    ServerInfo renamed = makeInfo("gone", "/rt", 8080, 2);
    AddressList division = addresses(c.division);
    AddressList enterprise = addresses(c.enterprise);
    update(&renamed, division, enterprise);
    ASSERT_EQ(walk().substr(0, 5), "gone ");
    removeServer(find("gone"));

    // The next topology names no preferred server: the old one is kept if it exists, else the
    // head of the division list, or of the enterprise list, takes its place.
    update(nullptr, division, enterprise);
    EXPECT_TRUE(traced("SRV CACHE - Warning! no preferred server"));
    EXPECT_TRUE(traced(std::string("SRV CACHE - ") + c.message));
    EXPECT_EQ(walk(), c.walk);
  }

  // Nothing left to promote.
  create();
  removeServer(find("alpha"));
  update(nullptr, addresses({}), addresses({}), kSrvsFailed);
}

TEST_F(ServerCache, TopologyWithPreferredAndNoDivisionListSkipsFirstEnterpriseServer) {
  create("alpha", 1);
  ServerInfo preferred = makeInfo("alpha", "/rt", 8080, 2);
  AddressList enterprise = addresses({"e1", "e2", "e3"});
  ASSERT_EQ(updateServerCache(&preferred, nullptr, enterprise.get()), kSrvsOk);
  EXPECT_EQ(walk(), "alpha | | e3 e2");
  EXPECT_FALSE(traced("'e1'"));
  // The preferred entry found the preferred record itself and moved it in place.
  EXPECT_TRUE(traced("SRV CACHE - Server 'alpha' moved to scope 0"));

  // With a division list the enterprise list is merged from its first entry, each known server
  // goes to the head, and the sweep hands the preferred record's level to every record it visits.
  update(&preferred, addresses({"d1"}), enterprise);
  EXPECT_TRUE(traced("SRV CACHE - Added new server 'e1', scope 2"));
  EXPECT_EQ(walk(), "alpha | d1 | e3 e2 e1");
  for (const char* host : {"d1", "e1", "e2"}) {
    ServerInfo info;
    ASSERT_EQ(getServerInfo(find(host), &info), kSrvsOk);
    EXPECT_EQ(info.securityLevel, 1) << host;
  }
}

}  // namespace
}  // namespace slm
