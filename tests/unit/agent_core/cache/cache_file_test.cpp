#include "agent_core/cache/cache_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>

#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::bytes;
using test::fileExists;

std::string nameField(const std::string& name) {
  return test::field(name, 256);
}

const std::string kVersion12 = bytes({1, 0, 0, 0, 2, 0, 0, 0});

class CacheFile : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    ASSERT_EQ(setCacheVersion(kServerFileId, 1, 2), kCacheVersionOk);
    ASSERT_EQ(setCacheVersion(kUatFileId, 1, 3), kCacheVersionOk);
    ASSERT_EQ(setCacheVersion(kPluginFileId, 1, 2), kCacheVersionOk);
  }
};

TEST_F(CacheFile, HeaderBytesFollowTheLayout) {
  const CacheHeader header{CacheVersion{1, 3}, -2, "alpha.example"};
  const std::string expected = bytes({1, 0, 0, 0, 3, 0, 0, 0,  //
                                      0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}) +
                               nameField("alpha.example");
  uint8_t encoded[kCacheHeaderSize];
  encodeCacheHeader(header, encoded);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded), sizeof encoded), expected);
  encodeCacheVersion(CacheVersion{0x102, 0x80000007}, encoded);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded), kCacheVersionSize),
            bytes({0x02, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x80}));

  // Only the low 32 bits of the time are kept, sign-extended.
  const std::pair<int64_t, std::string> times[] = {
      {0x80000000, bytes({0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF})},
      {0x17FFFFFFF, bytes({0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0})}};
  for (const auto& [time, field] : times) {
    encodeCacheHeader(CacheHeader{CacheVersion{1, 3}, time, ""}, encoded);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded) + 8, 8), field) << time;
  }

  const std::string full = expected.substr(0, 16) + std::string(256, 'n');  // no terminator
  CacheHeader decoded;
  decodeCacheHeader(reinterpret_cast<const uint8_t*>(full.data()), &decoded);
  EXPECT_EQ(std::string(decoded.serverName), std::string(256, 'n'));
}

TEST_F(CacheFile, VersionTableRefusesIdsOutsideTheTable) {
  CacheVersion version{9, 9};
  for (int32_t badId : {-1, 5}) {
    EXPECT_EQ(setCacheVersion(badId, 1, 1), kCacheVersionBad);
    EXPECT_EQ(getCacheVersion(badId, &version), kCacheVersionBad);
    EXPECT_TRUE(traced("CACHE - Bad file_id value " + std::to_string(badId)));
  }
  EXPECT_EQ(version, (CacheVersion{9, 9}));
}

TEST_F(CacheFile, CachePathIsTheRootedDirectoryAndTheName) {
  char path[kCachePathSize];
  EXPECT_EQ(std::string(cacheFilePath("server.dat", path)),
            root_.path() + "/var/qsam/cache/server.dat");
  EXPECT_EQ(std::string(cacheFilePath(std::string(5000, 'x').c_str(), path)).size(), 4094u);
}

TEST_F(CacheFile, OpenReportsEachBadHeaderAndDeletesAllButTheShortVersion) {
  loadConfiguration("server=alpha\n");
  const std::string time = bytes({0x10, 0x20, 0, 0, 0, 0, 0, 0});
  const std::string otherServer = "CACHE - Server in configuration file different from the one in";
  const std::tuple<int32_t, std::string, bool, std::string> cases[] = {
      {kServerFileId, bytes({1, 0, 0, 0}), true, "ERROR - Reading cache version from file "},
      {kServerFileId, bytes({2, 0, 0, 0, 2, 0, 0, 0}) + time, false,
       "WARNING - The major version is different: actual 2, read 1"},
      {kUatFileId, kVersion12 + time + nameField("alpha"), false,
       "WARNING - The minor version is different: actual 2, read 3"},
      {kServerFileId, kVersion12 + bytes({1, 2, 3, 4}), false,
       "ERROR - Reading timestamp from file "},
      {kServerFileId, kVersion12 + time + std::string(255, 'a'), false,
       "ERROR - Reading the preferred server name from file "},
      {kServerFileId, kVersion12 + time + nameField("beta"), false, otherServer},
      {kServerFileId, kVersion12 + time + nameField("alph"), false, otherServer},  // a prefix
  };
  for (const auto& [fileId, content, kept, message] : cases) {
    SCOPED_TRACE(message);
    restartTrace();
    std::string path = writeCacheFile("test.dat", content);
    FILE* file = reinterpret_cast<FILE*>(&root_);  // must stay untouched
    int64_t stamp = 0;
    EXPECT_EQ(openCacheFile(path.c_str(), fileId, &file, &stamp), kCacheFileBad);
    EXPECT_EQ(file, reinterpret_cast<FILE*>(&root_));
    EXPECT_EQ(fileExists(path), kept);
    EXPECT_TRUE(traced(message)) << trace();
  }
}

TEST_F(CacheFile, OpenAcceptsAServerNameThatBeginsWithTheConfiguredOne) {
  loadConfiguration("server=alpha\n");
  std::string path = writeCacheFile(
      "server.dat", kVersion12 + bytes({0x00, 0xF1, 0x53, 0x65, 0xFF, 0xFF, 0xFF, 0xFF}) +
                        nameField("alpha2") + "BODY");
  FILE* file = nullptr;
  int64_t time = 0;
  ASSERT_EQ(openCacheFile(path.c_str(), kServerFileId, &file, &time), kCacheFileValid);
  EXPECT_EQ(time, static_cast<int64_t>(0xFFFFFFFF6553F100));
  EXPECT_EQ(ftell(file), 272);  // on the body
  fclose(file);
}

TEST_F(CacheFile, OpenWithoutTimestampReadsOnlyTheVersionPair) {
  loadConfiguration("server=alpha\n");
  // What follows the version would be a foreign server name if it were read as a full header.
  std::string path = writeCacheFile("plugin.dat", kVersion12 + "beta-and-more-bytes");
  FILE* file = nullptr;
  ASSERT_EQ(openCacheFile(path.c_str(), kPluginFileId, &file, nullptr), kCacheFileValid);
  EXPECT_EQ(ftell(file), 8);
  fclose(file);

  file = reinterpret_cast<FILE*>(&root_);
  EXPECT_EQ(openCacheFile(cachePath("none.dat").c_str(), kPluginFileId, &file, nullptr),
            kCacheFileMissing);
  EXPECT_EQ(file, nullptr);
}

}  // namespace
}  // namespace slm
