#include "agent_core/cache/cache_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

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
  CacheHeader header;
  header.version = CacheVersion{1, 3};
  header.timestamp = 1700000000;  // 0x6553F100
  std::string server = "alpha.example";
  server.copy(header.serverName, server.size());
  std::string expected = bytes({0x01, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  //
                                0x00, 0xF1, 0x53, 0x65, 0x00, 0x00, 0x00, 0x00}) +
                         nameField("alpha.example");
  uint8_t encoded[kCacheHeaderSize];
  encodeCacheHeader(header, encoded);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded), sizeof encoded), expected);

  // A time before the epoch is sign-extended over all eight bytes.
  header.timestamp = -2;
  encodeCacheHeader(header, encoded);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded) + 8, 8),
            bytes({0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));

  std::string shortForm = bytes({0x02, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x80});
  encodeCacheVersion(CacheVersion{0x102, 0x80000007}, encoded);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(encoded), kCacheVersionSize), shortForm);
  EXPECT_EQ(decodeCacheVersion(reinterpret_cast<const uint8_t*>(shortForm.data())),
            (CacheVersion{0x102, 0x80000007}));

  CacheHeader decoded;
  decodeCacheHeader(reinterpret_cast<const uint8_t*>(expected.data()), &decoded);
  EXPECT_EQ(decoded.version, (CacheVersion{1, 3}));
  EXPECT_EQ(decoded.timestamp, 1700000000);
  EXPECT_STREQ(decoded.serverName, "alpha.example");

  // A name that fills the field has no terminator in the file but gets one when decoded.
  std::string full = expected.substr(0, 16) + std::string(256, 'n');
  decodeCacheHeader(reinterpret_cast<const uint8_t*>(full.data()), &decoded);
  EXPECT_EQ(std::string(decoded.serverName), std::string(256, 'n'));
}

TEST_F(CacheFile, VersionTableRefusesIdsOutsideTheTable) {
  CacheVersion version{9, 9};
  for (int32_t badId : {-1, 5}) {
    EXPECT_EQ(setCacheVersion(badId, 1, 1), kCacheVersionBad);
    EXPECT_EQ(getCacheVersion(badId, &version), kCacheVersionBad);
    EXPECT_EQ(testCacheVersion(badId, CacheVersion{}), kCacheVersionBad);
    EXPECT_TRUE(traced("CACHE - Bad file_id value " + std::to_string(badId)));
  }
  EXPECT_EQ(version, (CacheVersion{9, 9}));

  ASSERT_EQ(setCacheVersion(kCatalogFileId, 4, 7), kCacheVersionOk);
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{4, 7}), kCacheVersionOk);
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{4, 8}), kCacheVersionBad);
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{5, 7}), kCacheVersionBad);
}

TEST_F(CacheFile, CachePathIsTheRootedDirectoryAndTheName) {
  char path[kCachePathSize];
  EXPECT_EQ(std::string(cacheFilePath("server.dat", path)),
            root_.path() + "/var/qsam/cache/server.dat");

  // The name is cut so that the whole path stays within 4094 characters.
  cacheFilePath(std::string(5000, 'x').c_str(), path);
  EXPECT_EQ(std::string(path).size(), 4094u);
}

TEST_F(CacheFile, OpenReportsEachBadHeaderAndDeletesAllButTheShortVersion) {
  loadConfiguration("server=alpha\n");
  const std::string time = bytes({0x10, 0x20, 0, 0, 0, 0, 0, 0});
  struct Case {
    int32_t fileId;
    std::string content;
    bool kept;
    const char* message;
    const char* versionMessage;  // or null
  };
  const Case cases[] = {
      {kServerFileId, bytes({1, 0, 0, 0}), true, "ERROR - Reading cache version from file ",
       nullptr},
      {kServerFileId, bytes({2, 0, 0, 0, 2, 0, 0, 0}) + time, false,
       "WARNING - The major version is different: actual 2, read 1",
       "ERROR - Checking cache version for file "},
      {kUatFileId, kVersion12 + time + nameField("alpha"), false,
       "WARNING - The minor version is different: actual 2, read 3",
       "ERROR - Checking cache version for file "},
      {kServerFileId, kVersion12 + bytes({1, 2, 3, 4}), false,
       "ERROR - Reading timestamp from file ", nullptr},
      {kServerFileId, kVersion12 + time + std::string(255, 'a'), false,
       "ERROR - Reading the preferred server name from file ", nullptr},
      {kServerFileId, kVersion12 + time + nameField("beta"), false,
       "CACHE - Server in configuration file different from the one in", nullptr},
      // A stored name that is a prefix of the configured one is another server.
      {kServerFileId, kVersion12 + time + nameField("alph"), false,
       "CACHE - Server in configuration file different from the one in", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    restartTrace();
    std::string path = writeCacheFile("test.dat", c.content);
    FILE* file = reinterpret_cast<FILE*>(&root_);  // must stay untouched
    int64_t stamp = -7;
    EXPECT_EQ(openCacheFile(path.c_str(), c.fileId, &file, &stamp), kCacheFileBad);
    EXPECT_EQ(file, reinterpret_cast<FILE*>(&root_));
    EXPECT_EQ(fileExists(path), c.kept);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_TRUE(c.versionMessage == nullptr || traced(c.versionMessage)) << trace();
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
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(time, static_cast<int64_t>(0xFFFFFFFF6553F100));
  char body[5] = {};
  EXPECT_EQ(fread(body, 1, 4, file), 4u);
  EXPECT_STREQ(body, "BODY");
  fclose(file);
  EXPECT_TRUE(traced("OK - Cache version in file " + path + " is 1.2"));

  // Without a configured server every file is accepted.
  loadConfiguration("tag=x\n");
  path = writeCacheFile("server.dat", kVersion12 + std::string(8, '\0') + nameField("anything"));
  ASSERT_EQ(openCacheFile(path.c_str(), kServerFileId, &file, &time), kCacheFileValid);
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
  EXPECT_TRUE(fileExists(path));

  file = reinterpret_cast<FILE*>(&root_);
  EXPECT_EQ(openCacheFile(cachePath("none.dat").c_str(), kPluginFileId, &file, nullptr),
            kCacheFileMissing);
  EXPECT_EQ(file, nullptr);
}

}  // namespace
}  // namespace slm
