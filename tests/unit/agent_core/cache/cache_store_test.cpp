// Stores that cannot finish, as on a full disk (here a limit on the size of files the process may
// write): each cache file stays as the last whole store left it, and no new file is left behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/uat.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/slm_list.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

class CacheStore : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    loadConfiguration("agentid=1\ndivisionid=2\ntag=t\ncustomer=c\nserver=alpha\n");
    root_.makeDirs("var/qsam/log");
    setTraceLevel(0);  // no dump of the unknown files after every entry
  }
  void TearDown() override {
    clearAgentInfo();
    AgentSandbox::TearDown();
  }

  // Runs `store` while no file may grow beyond `bytes`. SIGXFSZ is ignored meanwhile, so that the
  // write that meets the limit fails with EFBIG, as one on a full disk fails with ENOSPC.
  static int storeWithRoomFor(rlim_t bytes, int (*store)()) {
    rlimit unlimited{};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    auto previous = signal(SIGXFSZ, SIG_IGN);
    rlimit limited{bytes, unlimited.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    int result = store();
    setrlimit(RLIMIT_FSIZE, &unlimited);
    signal(SIGXFSZ, previous);
    return result;
  }

  // Stores once whole, grows the cache with `grow`, then stores again with too little room: the
  // file of the first store must still be there, and nothing beside it.
  void expectFailedStoreKeeps(const char* name, int (*store)(), void (*grow)()) {
    SCOPED_TRACE(name);
    ASSERT_EQ(store(), 0);
    const std::string whole = readCacheFile(name);
    grow();
    EXPECT_NE(storeWithRoomFor(whole.size() / 2, store), 0);
    const std::string left = test::fileExists(cachePath(name)) ? readCacheFile(name) : "";
    // Compared whole, reported by size: the files are kilobytes of binary records.
    EXPECT_TRUE(left == whole) << left.size() << " bytes left of " << whole.size();
    for (const auto& entry : std::filesystem::directory_iterator(root_.file("var/qsam/cache"))) {
      const std::string file = entry.path().filename().string();
      EXPECT_TRUE(file.rfind(name, 0) != 0 || file == name) << file << " left behind";
    }
  }
};

void addFiles() {
  static int next = 0;
  ListHandle components = makeList(sizeof(ComponentRecord));
  ListHandle files = makeList(sizeof(FileRecord));
  for (int i = 0; i < 20; ++i, ++next) {
    FileRecord file{};
    snprintf(file.name, sizeof file.name, "file%d", next);
    file.size = 100 + next;
    ASSERT_EQ(append(files.get(), &file), kListOk);
  }
  ASSERT_EQ(updateCatalog(components.get(), files.get()), kLatOk);
}

void addUnknownFiles() {
  static int next = 0;
  for (int i = 0; i < 20; ++i, ++next) {
    UnknownFileEntry entry{};
    snprintf(entry.name, sizeof entry.name, "prog%d", next);
    entry.size = 100 + next;
    ASSERT_EQ(addUnknownFileEntry(&entry), kUatOk);
  }
}

void addServers() {
  static int next = 0;
  ListHandle division = makeList(sizeof(ServerAddress));
  for (int i = 0; i < 20; ++i, ++next) {
    ServerAddress server{};
    snprintf(server.host, sizeof server.host, "d%d", next);
    server.port = 80;
    ASSERT_EQ(append(division.get(), &server), kListOk);
  }
  ASSERT_EQ(updateServerCache(nullptr, division.get(), nullptr), kSrvsOk);
}

void changeHost() {
  (void)setAgentCharValue(kAgentHostName, "another-host");
}

TEST_F(CacheStore, StoreThatCannotFinishKeepsTheLastWholeFile) {
  const ServerInfo configured{.address = {.host = "alpha", .path = "", .port = 9},
                              .securityLevel = 0};
  ASSERT_EQ(createServersCache(&configured), kSrvsOk);
  ASSERT_EQ(createComponentsCacheWithSlots(64), kLatOk);
  ASSERT_EQ(createUATCache(), kUatOk);
  ASSERT_EQ(initAgentInfo(), kAgentValueOk);
  addServers();
  addFiles();
  addUnknownFiles();

  expectFailedStoreKeeps(kCatalogFileName, storeCatalog, addFiles);
  expectFailedStoreKeeps(kUatFileName, writeUnknownFileList, addUnknownFiles);
  expectFailedStoreKeeps(kServerFileName, storeServerList, addServers);
  expectFailedStoreKeeps(kPluginDatName, storePluginData, changeHost);

  discardComponentsCache();
  discardUATCache();
  // The server cache writes its file when deleted; with room again that store succeeds.
  deleteServersCache();
}

}  // namespace
}  // namespace slm
