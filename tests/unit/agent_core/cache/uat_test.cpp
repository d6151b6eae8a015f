#include "agent_core/cache/uat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/srvs.h"
#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::field, test::le32, test::le64;

UnknownFileEntry entry(const std::string& name, int64_t size, const std::string& path,
                       AgentTime time) {
  UnknownFileEntry out{};
  name.copy(out.name, sizeof out.name - 1);
  path.copy(out.path, sizeof out.path - 1);
  out.size = size;
  out.lastUpdateTime = time;
  return out;
}

// One entry of "uat.dat", written out from the layout.
std::string entryBytes(const std::string& name, int64_t size, const std::string& path,
                       uint32_t time, int32_t a1 = 0, int32_t a2 = 0) {
  return field(name, 256) + le64(size) + le32(a1) + le32(a2) + le32(0) + field(path, 404) +
         le32(time);
}
std::string header(uint32_t uploadTime, const std::string& server = "alpha") {
  return le32(1) + le32(3) + le64(uploadTime) + field(server, 256);
}

class UnknownFiles : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    root_.makeDirs("var/qsam/log");
    loadConfiguration("server=alpha\n");
    ServerInfo configured{};
    strcpy(configured.address.host, "alpha");
    ASSERT_EQ(createServersCache(&configured), kSrvsOk);
  }
  void TearDown() override {
    if (created_) deleteUATCache();
    deleteServersCache();
    AgentSandbox::TearDown();
  }
  void create() {
    if (created_) deleteUATCache();
    ASSERT_EQ(createUATCache(), kUatOk);
    created_ = true;
  }
  // The names the upload walk gives, from the start.
  static std::string walk() {
    std::string out;
    UnknownFileEntry next{};
    for (int restart = 1; copyNextUpdatedInstance(&next, restart) == kUatOk; restart = 0)
      out += std::string(out.empty() ? "" : " ") + next.name;
    return out;
  }
  std::string dump() const { return test::readFile(root_.file("var/qsam/log/traceuat.log")); }

  bool created_ = false;
};

TEST_F(UnknownFiles, StoresGoldenBytesAndReadsThemBack) {
  create();
  UnknownFileEntry setup = entry("Setup", 100, "/opt/a", 1000);
  setup.attribute1 = 7;
  setup.attribute2 = -2;
  ASSERT_EQ(addUnknownFileEntry(&setup), kUatOk);
  UnknownFileEntry tool = entry("tool", 5000000000, "/usr/local/bin", 1200);
  ASSERT_EQ(addUnknownFileEntry(&tool), kUatOk);
  setLastUploadTime(1100);
  ASSERT_EQ(writeUnknownFileList(), kUatOk);
  const std::string expected = header(1100) + entryBytes("Setup", 100, "/opt/a", 1000, 7, -2) +
                               entryBytes("tool", 5000000000, "/usr/local/bin", 1200);
  EXPECT_EQ(readCacheFile(kUatFileName), expected);
  EXPECT_TRUE(traced("UAT - Data written into file " + cachePath(kUatFileName)));

  deleteUATCache();
  created_ = false;
  create();
  EXPECT_TRUE(traced("UAT - The unknown file list has been read from file " +
                     cachePath(kUatFileName) + ", 2 entries"));
  EXPECT_EQ(getLastUploadTime(), 1100);
  EXPECT_EQ(walk(), "tool");
  deleteUATCache();
  created_ = false;
  EXPECT_EQ(readCacheFile(kUatFileName), expected) << "a start and stop changed the file";
}

TEST_F(UnknownFiles, OneEntryPerFileWhateverItsCaseOrDirectory) {
  create();
  UnknownFileEntry first = entry("Setup", 100, "/a", 10);
  UnknownFileEntry second = entry("SETUP", 100, "/b", 20);
  UnknownFileEntry larger = entry("setup", 101, "/b", 30);
  EXPECT_EQ(addUnknownFileEntry(&first), kUatOk);
  EXPECT_EQ(addUnknownFileEntry(&second), kUatKnown);
  EXPECT_TRUE(traced(" - File SETUP found in UAT"));
  EXPECT_EQ(addUnknownFileEntry(&larger), kUatOk);
  EXPECT_EQ(getUnknownFilesNumber(), 2);
  UnknownFileEntry kept{};
  ASSERT_EQ(copyNextUpdatedInstance(&kept, 1), kUatOk);
  EXPECT_EQ(std::string(kept.path) + " " + std::to_string(kept.lastUpdateTime), "/a 10");

  EXPECT_EQ(delUnknownFileEntry(&second), kUatOk);
  EXPECT_TRUE(traced("delUnknownFileEntry - Element removed from UAT table"));
  EXPECT_EQ(delUnknownFileEntry(&second), kUatFailed);
  EXPECT_TRUE(traced("ERROR - Removing an element from UAT table"));
  EXPECT_EQ(walk(), "setup");
}

TEST_F(UnknownFiles, UploadWalkTakesEntriesNotEarlierThanTheLastUpload) {
  create();
  for (const auto& [name, time] :
       {std::pair<const char*, AgentTime>{"old", 99}, {"same", 100}, {"new", 101}}) {
    UnknownFileEntry e = entry(name, 1, "/bin", time);
    ASSERT_EQ(addUnknownFileEntry(&e), kUatOk);
  }
  EXPECT_EQ(walk(), "old same new");
  setLastUploadTime(100);
  EXPECT_EQ(walk(), "same new");
  EXPECT_EQ(copyNextUpdatedInstance(nullptr, 1), kUatFailed);
  setLastUploadTime(102);
  UnknownFileEntry none{};
  EXPECT_EQ(copyNextUpdatedInstance(&none, 1), kUatNoMore);

  ASSERT_EQ(resetUATCache(), kUatOk);
  EXPECT_EQ(getLastUploadTime(), 0);
  EXPECT_EQ(getUnknownFilesNumber(), 0);
  EXPECT_EQ(walk(), "");
}

TEST_F(UnknownFiles, DuplicateInTheFileStopsTheLoadAndKeepsTheEarlierUploadTime) {
  writeCacheFile(kUatFileName, header(5000) + entryBytes("a", 1, "/x", 6000) +
                                   entryBytes("b", 2, "/x", 6000) + entryBytes("A", 1, "/y", 1) +
                                   entryBytes("c", 3, "/x", 6000));
  create();
  EXPECT_TRUE(traced("UAT - no Unknown Files file " + cachePath(kUatFileName)));
  EXPECT_EQ(walk(), "a b");
  EXPECT_EQ(getLastUploadTime(), 0);

  // A cut last entry is dropped; a file of another server is thrown away.
  deleteUATCache();
  created_ = false;
  writeCacheFile(kUatFileName, header(5000) + entryBytes("a", 1, "/x", 6000) +
                                   entryBytes("b", 2, "/x", 6000).substr(0, 600));
  create();
  EXPECT_EQ(walk(), "a");
  EXPECT_EQ(getLastUploadTime(), 5000);
  deleteUATCache();
  created_ = false;
  writeCacheFile(kUatFileName, header(5000, "beta") + entryBytes("a", 1, "/x", 6000));
  create();
  EXPECT_EQ(walk(), "");
  EXPECT_TRUE(traced("WARNING - The version in file " + cachePath(kUatFileName) +
                     " is not supported or the runtime server has been changed."));
}

TEST_F(UnknownFiles, CleaningDropsFilesGoneFromTheDisk) {
  create();
  ASSERT_EQ(cleanUnknownTable(), kUatOk);
  EXPECT_TRUE(traced(" - Unknown cache empty"));
  root_.makeDirs("opt/app");
  root_.writeFile("opt/app/kept", "x");
  root_.writeFile("top", "x");
  for (UnknownFileEntry e : {entry("kept", 1, "/opt/app", 1), entry("gone", 1, "/opt/app", 1),
                             entry("top", 2, "/", 1), entry("kept", 3, "/elsewhere", 1)}) {
    ASSERT_EQ(addUnknownFileEntry(&e), kUatOk);
  }
  ASSERT_EQ(cleanUnknownTable(), kUatOk);
  EXPECT_EQ(walk(), "kept top");
  EXPECT_EQ(getUnknownFilesNumber(), 2);
}

TEST_F(UnknownFiles, DumpListsEveryEntryWhileLevelOneIsOn) {
  create();
  ASSERT_EQ(resetUATCache(), kUatOk);
  EXPECT_EQ(dump(), "\n      -*- UNKNOWN FILES CACHE -*-\n\n\n Empty cache, last upload time 0");
  UnknownFileEntry e = entry("prog", 5000000000, "/usr/bin", 42);
  ASSERT_EQ(addUnknownFileEntry(&e), kUatOk);
  setLastUploadTime(77);
  EXPECT_EQ(dump(),
            "\n      -*- UNKNOWN FILES CACHE -*-\n\n\n"
            " File name: prog, size: 5000000000, path: /usr/bin\n    last update time: 42\n\n"
            " Cache from time 1, last upload time 77");
  // The dump walks on its own: an upload walk in progress goes on where it was.
  UnknownFileEntry second = entry("second", 1, "/usr/bin", 80);
  ASSERT_EQ(addUnknownFileEntry(&second), kUatOk);
  setLastUploadTime(0);
  UnknownFileEntry next{};
  ASSERT_EQ(copyNextUpdatedInstance(&next, 1), kUatOk);
  UnknownFileEntry third = entry("third", 1, "/usr/bin", 90);
  ASSERT_EQ(addUnknownFileEntry(&third), kUatOk);
  ASSERT_EQ(copyNextUpdatedInstance(&next, 0), kUatOk);
  EXPECT_STREQ(next.name, "second");

  setTraceLevel(0);
  remove(root_.file("var/qsam/log/traceuat.log").c_str());
  UnknownFileEntry quiet = entry("quiet", 9, "/", 1);
  ASSERT_EQ(addUnknownFileEntry(&quiet), kUatOk);
  EXPECT_FALSE(test::fileExists(root_.file("var/qsam/log/traceuat.log")));
}

TEST_F(UnknownFiles, MonitorAddsWhileTheCommandsThreadWalks) {
  create();
  setTraceLevel(0);
  std::thread monitor([] {
    for (int i = 0; i < 500; ++i) {
      UnknownFileEntry e = entry("p" + std::to_string(i), i + 1, "/bin", i);
      EXPECT_EQ(addUnknownFileEntry(&e), kUatOk);
    }
  });
  for (int i = 0; i < 50; ++i) {
    setLastUploadTime(i);
    (void)walk();
  }
  monitor.join();
  setLastUploadTime(0);
  EXPECT_EQ(getUnknownFilesNumber(), 500);
}

}  // namespace
}  // namespace slm
