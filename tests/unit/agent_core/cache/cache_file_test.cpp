#include "agent_core/cache/cache_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "unit/agent_core/cache/cache_sandbox.h"

namespace slm {
namespace {

using test::bytes;
using test::fileExists;

std::string nameField(const std::string& name) {
  return test::field(name, 256);
}

class CacheFile : public test::CacheSandbox {
 protected:
  void SetUp() override {
    CacheSandbox::SetUp();
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
  uint8_t versionBytes[kCacheVersionSize];
  encodeCacheVersion(CacheVersion{0x102, 0x80000007}, versionBytes);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(versionBytes), sizeof versionBytes), shortForm);
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
  for (int32_t badId : {-1, 5, 1000}) {
    restartTrace();
    EXPECT_EQ(setCacheVersion(badId, 1, 1), kCacheVersionBad);
    EXPECT_EQ(getCacheVersion(badId, &version), kCacheVersionBad);
    EXPECT_EQ(testCacheVersion(badId, CacheVersion{}), kCacheVersionBad);
    EXPECT_NE(trace().find("CACHE - Bad file_id value " + std::to_string(badId)),
              std::string::npos);
  }
  EXPECT_EQ(version, (CacheVersion{9, 9}));

  ASSERT_EQ(setCacheVersion(kCatalogFileId, 4, 7), kCacheVersionOk);
  ASSERT_EQ(getCacheVersion(kCatalogFileId, &version), kCacheVersionOk);
  EXPECT_EQ(version, (CacheVersion{4, 7}));
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{4, 7}), kCacheVersionOk);
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{4, 8}), kCacheVersionBad);
  EXPECT_EQ(testCacheVersion(kCatalogFileId, CacheVersion{5, 7}), kCacheVersionBad);
}

TEST_F(CacheFile, CachePathIsTheRootedDirectoryAndTheName) {
  char path[kCachePathSize];
  EXPECT_EQ(std::string(cacheFilePath("server.dat", path)),
            root_.path() + "/var/qsam/cache/server.dat");

  // The name is cut so that the whole path stays within 4094 characters.
  std::string longName(5000, 'x');
  cacheFilePath(longName.c_str(), path);
  EXPECT_EQ(std::string(path).size(), 4094u);
}

TEST_F(CacheFile, OpenReportsEachBadHeaderAndDeletesAllButTheShortVersion) {
  loadConfiguration("server=alpha\n");
  const std::string serverVersion = bytes({1, 0, 0, 0, 2, 0, 0, 0});
  const std::string timestamp = bytes({0x10, 0x20, 0, 0, 0, 0, 0, 0});
  struct Case {
    const char* what;
    int32_t fileId;
    std::string content;
    int result;
    bool kept;
    std::vector<std::string> messages;
  };
  const Case cases[] = {
      {"only the major number",
       kServerFileId,
       bytes({1, 0, 0, 0}),
       kCacheFileBad,
       true,
       {"ERROR - Reading cache version from file "}},
      {"other major number",
       kServerFileId,
       bytes({2, 0, 0, 0, 2, 0, 0, 0}) + timestamp,
       kCacheFileBad,
       false,
       {"WARNING - The major version is different: actual 2, read 1",
        "ERROR - Checking cache version for file "}},
      {"other minor number",
       kUatFileId,
       serverVersion + timestamp + nameField("alpha"),
       kCacheFileBad,
       false,
       {"WARNING - The minor version is different: actual 2, read 3",
        "ERROR - Checking cache version for file "}},
      {"short timestamp",
       kServerFileId,
       serverVersion + bytes({1, 2, 3, 4}),
       kCacheFileBad,
       false,
       {"ERROR - Reading timestamp from file "}},
      {"short server name",
       kServerFileId,
       serverVersion + timestamp + std::string(255, 'a'),
       kCacheFileBad,
       false,
       {"ERROR - Reading the preferred server name from file "}},
      {"other server",
       kServerFileId,
       serverVersion + timestamp + nameField("beta"),
       kCacheFileBad,
       false,
       {"CACHE - Server in configuration file different from the one in"}},
      {"server name shorter than the configured one",
       kServerFileId,
       serverVersion + timestamp + nameField("alph"),
       kCacheFileBad,
       false,
       {"CACHE - Server in configuration file different from the one in"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    restartTrace();
    std::string path = writeCacheFile("test.dat", c.content);
    FILE* file = reinterpret_cast<FILE*>(&root_);  // must stay untouched
    int64_t time = -7;
    EXPECT_EQ(openCacheFile(path.c_str(), c.fileId, &file, &time), c.result);
    EXPECT_EQ(file, reinterpret_cast<FILE*>(&root_));
    EXPECT_EQ(fileExists(path), c.kept);
    for (const std::string& message : c.messages) {
      EXPECT_NE(trace().find(message), std::string::npos) << message << "\n" << trace();
    }
  }
}

TEST_F(CacheFile, OpenAcceptsAServerNameThatBeginsWithTheConfiguredOne) {
  loadConfiguration("server=alpha\n");
  const std::string header = bytes({1, 0, 0, 0, 2, 0, 0, 0}) +
                             bytes({0x00, 0xF1, 0x53, 0x65, 0xFF, 0xFF, 0xFF, 0xFF}) +
                             nameField("alpha2");
  std::string path = writeCacheFile("server.dat", header + "BODY");
  FILE* file = nullptr;
  int64_t time = 0;
  ASSERT_EQ(openCacheFile(path.c_str(), kServerFileId, &file, &time), kCacheFileValid);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(time, static_cast<int64_t>(0xFFFFFFFF6553F100));
  char body[5] = {};
  EXPECT_EQ(fread(body, 1, 4, file), 4u);
  EXPECT_STREQ(body, "BODY");
  fclose(file);
  EXPECT_NE(trace().find("OK - Cache version in file " + path + " is 1.2"), std::string::npos);

  // The other way round the file was written for a different server.
  loadConfiguration("server=alpha2\n");
  path = writeCacheFile(
      "server.dat", bytes({1, 0, 0, 0, 2, 0, 0, 0}) + std::string(8, '\0') + nameField("alpha"));
  EXPECT_EQ(openCacheFile(path.c_str(), kServerFileId, &file, &time), kCacheFileBad);
  EXPECT_FALSE(fileExists(path));

  // Without a configured server every file is accepted.
  loadConfiguration("tag=x\n");
  path = writeCacheFile(
      "server.dat", bytes({1, 0, 0, 0, 2, 0, 0, 0}) + std::string(8, '\0') + nameField("anything"));
  ASSERT_EQ(openCacheFile(path.c_str(), kServerFileId, &file, &time), kCacheFileValid);
  fclose(file);
}

TEST_F(CacheFile, OpenWithoutTimestampReadsOnlyTheVersionPair) {
  loadConfiguration("server=alpha\n");
  // What follows the version would be a foreign server name if it were read as a full header.
  std::string path =
      writeCacheFile("plugin.dat", bytes({1, 0, 0, 0, 2, 0, 0, 0}) + "beta-and-more-bytes");
  FILE* file = nullptr;
  ASSERT_EQ(openCacheFile(path.c_str(), kPluginFileId, &file, nullptr), kCacheFileValid);
  EXPECT_EQ(ftell(file), 8);
  fclose(file);
  EXPECT_TRUE(fileExists(path));

  std::string missing = root_.file("var/qsam/cache/none.dat");
  file = reinterpret_cast<FILE*>(&root_);
  EXPECT_EQ(openCacheFile(missing.c_str(), kPluginFileId, &file, nullptr), kCacheFileMissing);
  EXPECT_EQ(file, nullptr);
}

}  // namespace
}  // namespace slm
