#include "agent_core/cache/srvs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "agent_core/support/slm_list.h"
#include "support/agent_sandbox.h"
#include "support/fake_clock.h"

namespace slm {
namespace {

using test::field;
using test::le32;

ServerInfo makeInfo(const std::string& host, const std::string& path, int32_t level = 0) {
  ServerInfo info{};
  host.copy(info.address.host, host.size());
  path.copy(info.address.path, path.size());
  info.address.port = 9000;
  info.securityLevel = level;
  return info;
}

// One "server.dat" record: handle, host, path, port, security level, attribute, active, used and
// its padding, scope, lock, next, previous.
std::string recordBytes(const std::string& host, uint32_t active, uint32_t scope) {
  return le32(0) + field(host, 256) + field("/" + host, 256) + le32(9000) + le32(1) + le32(0) +
         le32(active) + test::bytes({1, 0, 0, 0}) + le32(scope) + le32(0) + le32(0) + le32(0);
}

// A list of ServerAddress records, as the topology service hands them over.
using AddressList = std::unique_ptr<SlmList, void (*)(SlmList*)>;
AddressList addresses(const std::vector<const char*>& hosts) {
  AddressList list(createList(sizeof(ServerAddress)), deleteList);
  for (const char* host : hosts) {
    ServerInfo info = makeInfo(host, std::string("/") + host);
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
  void create(int32_t level = 0, bool keepFile = false) {
    if (created_) deleteServersCache();  // stores the cache, as a shut-down does
    if (!keepFile) remove(cachePath("server.dat").c_str());
    ServerInfo configured = makeInfo("alpha", "/rt", level);
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
    created_ = true;
  }
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
      ServerInfo info = makeInfo(host, std::string("/") + host);
      ASSERT_EQ(createNewServer(&info, scope), kSrvsOk);
    }
  }
  // alpha | d2 d1 | e1
  void createThree() {
    create();
    add({"d1", "d2"}, kScopeDivision);
    add({"e1"}, kScopeEnterprise);
  }
  void update(const ServerInfo* preferred, const AddressList& division,
              const AddressList& enterprise, int result = kSrvsOk) {
    ASSERT_EQ(updateServerCache(preferred, division.get(), enterprise.get()), result);
  }

  bool created_ = false;
};

TEST_F(ServerCache, StoredFileFollowsTheLayout) {
  test::FakeClock clock(0x95000000);  // after 2038: a negative time in the file
  create(1);
  update(nullptr, addresses({"d1", "d2"}), addresses({"e1"}));
  serverNotResponding(find("d1"));
  ASSERT_EQ(storeServerList(), kSrvsOk);
  // New records go to the head; every record took the preferred server's security level.
  EXPECT_EQ(readCacheFile("server.dat"), le32(1) + le32(2) + le32(0x95000000) + le32(0xFFFFFFFF) +
                                             field("alpha", 256) + le32(2) + le32(1) +
                                             recordBytes("d2", 1, 1) + recordBytes("d1", 0, 1) +
                                             recordBytes("e1", 1, 2));
}

TEST_F(ServerCache, EachLoadReversesTheListsAndRestoresTheCounts) {
  createThree();
  add({"e2"}, kScopeEnterprise);
  serverNotResponding(find("d2"));
  create(0, true);
  EXPECT_EQ(walk(), "alpha | d1 d2 | e1 e2");
  EXPECT_EQ(getServersNumber(kActiveCount), 4);
  EXPECT_EQ(testActive(find("d2")), 0);
  create(0, true);
  EXPECT_EQ(walk(), "alpha | d2 d1 | e2 e1");
}

TEST_F(ServerCache, WalkStopsAtTheCacheScope) {
  createThree();
  const std::pair<int32_t, const char*> cases[] = {
      {0, "alpha"}, {1, "alpha | d2 d1"}, {2, "alpha | d2 d1 | e1"}};
  for (const auto& [scope, expected] : cases) {
    ASSERT_EQ(setScope(scope), kSrvsOk);
    EXPECT_EQ(walk(), expected) << "cache scope " << scope;
  }
  for (int32_t bad : {3, -1}) EXPECT_EQ(setScope(bad), kSrvsFailed);
  EXPECT_EQ(getScope(), 2);

  // Scope 1 with an empty division list jumps from the preferred server to the enterprise list.
  removeServer(find("d1"));
  removeServer(find("d2"));
  ASSERT_EQ(setScope(1), kSrvsOk);
  EXPECT_EQ(walk(), "alpha | | e1");

  // Without a preferred server there is no walk, whatever the other lists hold.
  ASSERT_EQ(moveServer(find("alpha"), kScopeDivision), kSrvsOk);
  EXPECT_EQ(walk(), "");
}

TEST_F(ServerCache, WalkFiltersByContactOutcome) {
  createThree();
  serverNotResponding(find("alpha"));
  serverNotResponding(find("d1"));
  EXPECT_EQ(walk(kNotRespondingServers), "alpha | d1");
  // Active twice: neither "active" nor "not responding" for the filters.
  serverIsActive(find("d2"));
  EXPECT_EQ(walk(kActiveServers), "| | e1");
}

TEST_F(ServerCache, ContactOutcomesKeepTheActiveCount) {
  createThree();
  ServerHandle d1 = find("d1");
  serverNotResponding(d1);
  serverNotResponding(d1);  // already not responding: nothing changes
  EXPECT_EQ(getServersNumber(kActiveCount), 3);
  EXPECT_EQ(getServersNumber(kNotRespondingCount), 1);

  // Outside the cache scope a contact changes the record, not the count.
  ASSERT_EQ(setScope(1), kSrvsOk);
  ServerHandle e1 = find("e1");
  serverNotResponding(e1);
  EXPECT_EQ(testActive(e1), 0);
  EXPECT_EQ(getServersNumber(kActiveCount), 2);  // alpha and d2

  // The recount counts only used records; removing an active record lowers the count.
  setAllUnused(kScopeDivision);
  ASSERT_EQ(setScope(2), kSrvsOk);
  EXPECT_EQ(getServersNumber(kActiveCount), 1);
  removeServer(find("alpha"));
  EXPECT_EQ(getServersNumber(kActiveCount), 0);
}

TEST_F(ServerCache, ContactsFromManyReadersAreAllCounted) {
  create();
  add({"d1"}, kScopeDivision);
  ServerHandle d1 = find("d1");
  serverNotResponding(d1);
  // Contacts are recorded while other readers walk, test and count under the same read lock.
  auto underReadLock = [](auto action) {
    return [action] {
      for (int i = 0; i < 500; ++i) {
        if (readLockSrvsCache() != kSrvsOk) return;
        action();
        releaseLockSrvsCache();
      }
    };
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back(underReadLock([d1] { serverIsActive(d1); }));
    threads.emplace_back(underReadLock([this, d1] {
      EXPECT_GE(testActive(d1), 0);
      EXPECT_GE(getServersNumber(kActiveCount), 1);
      EXPECT_EQ(walk(kActiveServers).rfind("alpha", 0), 0u);
    }));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(testActive(d1), 4 * 500);
  EXPECT_EQ(getServersNumber(kActiveCount), 1 + 4 * 500);
}

TEST_F(ServerCache, TopologyAddsMovesAndDropsServers) {
  test::FakeClock clock(1700000000);
  create();
  add({"old"}, kScopeDivision);
  add({"d1"}, kScopeEnterprise);
  update(nullptr, addresses({"d1", "d2"}), addresses({"e1", "alpha"}));
  EXPECT_EQ(getSrvsCacheUpdateTime(), 1700000000u);
  // The preferred server stays preferred although the topology lists it in the enterprise.
  EXPECT_EQ(walk(), "alpha | d2 d1 | e1");
  EXPECT_TRUE(traced("SRV CACHE - Server 'd1' moved to scope 1"));
  ServerHandle gone = nullptr;
  EXPECT_EQ(findServerbyName("old", &gone), kSrvsNotFound);
}

TEST_F(ServerCache, TopologySweepStopsAtAnEmptyDivisionList) {
  // When the division list held a record the sweep clears the enterprise list too.
  for (bool divisionBefore : {true, false}) {
    create();
    if (divisionBefore) add({"d1"}, kScopeDivision);
    add({"e1", "e2"}, kScopeEnterprise);
    update(nullptr, addresses({}), addresses({}));
    EXPECT_EQ(walk(), divisionBefore ? "alpha" : "alpha | | e2 e1");
  }
}

TEST_F(ServerCache, TopologyReplacesAVanishedPreferredServer) {
  const std::tuple<std::vector<const char*>, std::vector<const char*>, const char*> cases[] = {
      {{"d1", "d2"}, {"e1"}, "d2 | d1 | e1"}, {{}, {"e1", "e2"}, "e2 | | e1"}};
  for (const auto& [divisionHosts, enterpriseHosts, expected] : cases) {
    create();
    removeServer(find("alpha"));
    // No preferred server named: the head of the division list, or else of the enterprise list,
    // takes its place.
    update(nullptr, addresses(divisionHosts), addresses(enterpriseHosts));
    EXPECT_EQ(walk(), expected);
  }
  create();
  removeServer(find("alpha"));
  update(nullptr, addresses({}), addresses({}), kSrvsFailed);  // nothing left to promote
}

TEST_F(ServerCache, TopologyWithPreferredAndNoDivisionListSkipsFirstEnterpriseServer) {
  create(1);
  ServerInfo preferred = makeInfo("alpha", "/rt", 2);
  AddressList enterprise = addresses({"e1", "e2", "e3"});
  ASSERT_EQ(updateServerCache(&preferred, nullptr, enterprise.get()), kSrvsOk);
  EXPECT_EQ(walk(), "alpha | | e3 e2");

  // With a division list the enterprise list is merged from its first entry, and the sweep hands
  // the preferred record's level to every record it visits.
  update(&preferred, addresses({"d1"}), enterprise);
  EXPECT_EQ(walk(), "alpha | d1 | e3 e2 e1");
  ServerInfo info;
  ASSERT_EQ(getServerInfo(find("e2"), &info), kSrvsOk);
  EXPECT_EQ(info.securityLevel, 1);
}

}  // namespace
}  // namespace slm
