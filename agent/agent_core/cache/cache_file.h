// What every cache file in the cache directory has in common: the table of the versions this agent
// writes and accepts, the header a cache file starts with, and the routine through which the caches
// open their files for reading, which throws away any file that must not be used.
// The version table is written while the caches are created at start-up, before the worker threads
// run, and read without a lock afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace slm {

constexpr char kCacheDir[] = "/var/qsam/cache";
constexpr size_t kCachePathSize = 4096;

// File ids: the index of a cache file in the version table.
constexpr int32_t kAgentFileId = 0;    // agent.dat
constexpr int32_t kServerFileId = 1;   // server.dat
constexpr int32_t kUatFileId = 2;      // uat.dat
constexpr int32_t kPluginFileId = 3;   // plugin.dat
constexpr int32_t kCatalogFileId = 4;  // catalog.dat
constexpr int32_t kCacheFileCount = 5;

struct CacheVersion {
  uint32_t majorNumber = 0;
  uint32_t minorNumber = 0;
  bool operator==(const CacheVersion&) const = default;
};

// The versions this agent writes and accepts; each cache registers its own when it is created.
constexpr CacheVersion kAgentCacheVersion{1, 1};
constexpr CacheVersion kServerCacheVersion{1, 2};
constexpr CacheVersion kUatCacheVersion{1, 3};
constexpr CacheVersion kPluginCacheVersion{1, 2};
constexpr CacheVersion kCatalogCacheVersion{1, 2};

// Header of a cache file, little-endian. The short form stops after the version
// pair; the full form adds the time of the cache's last update and the
// preferred server in force when it was written.
constexpr size_t kCacheMajorOffset = 0;
constexpr size_t kCacheMinorOffset = 4;
constexpr size_t kCacheVersionSize = 8;
constexpr size_t kCacheTimestampOffset = 8;
constexpr size_t kCacheTimestampSize = 8;
constexpr size_t kCacheServerNameOffset = 16;
constexpr size_t kCacheServerNameSize = 256;
constexpr size_t kCacheHeaderSize = 272;
static_assert(kCacheMajorOffset + 4 == kCacheMinorOffset);
static_assert(kCacheMinorOffset + 4 == kCacheVersionSize);
static_assert(kCacheVersionSize == kCacheTimestampOffset);
static_assert(kCacheTimestampOffset + kCacheTimestampSize == kCacheServerNameOffset);
static_assert(kCacheServerNameOffset + kCacheServerNameSize == kCacheHeaderSize);

struct CacheHeader {
  CacheVersion version;
  int64_t timestamp = 0;  // seconds since the epoch; written as its low 32 bits, sign-extended
  char serverName[kCacheServerNameSize + 1] = "";
};

// Short form: kCacheVersionSize bytes.
void encodeCacheVersion(const CacheVersion& version, uint8_t* out);
CacheVersion decodeCacheVersion(const uint8_t* in);
// Full form: kCacheHeaderSize bytes. The server name is cut to kCacheServerNameSize bytes and
// padded with zeros.
void encodeCacheHeader(const CacheHeader& header, uint8_t* out);
void decodeCacheHeader(const uint8_t* in, CacheHeader* header);

// Writes the path of the cache file `fileName` (the cache directory under the root, "/", the name)
// into `out`, which holds kCachePathSize bytes. Returns `out`.
char* cacheFilePath(const char* fileName, char* out);
// The same for a file in any of the agent's fixed directories.
char* rootedFilePath(const char* directory, const char* fileName, char* out);

constexpr int kCacheVersionOk = 0;
constexpr int kCacheVersionBad = 1;  // bad file id, or a version other than the table's

// Register and look up the version pair of a file id (0 to 4). A bad id is traced and refused.
[[nodiscard]] int setCacheVersion(int32_t fileId, uint32_t majorNumber, uint32_t minorNumber);
[[nodiscard]] int getCacheVersion(int32_t fileId, CacheVersion* version);
// kCacheVersionOk when `read` equals the table's pair for `fileId`.
[[nodiscard]] int testCacheVersion(int32_t fileId, const CacheVersion& read);

// Cache files are written whole or not at all: a store writes a new file beside the old one and
// renames it over the old one only once every byte is written and the file closed. A stop at any
// moment, a kill or a full disk then leaves the old file or the new one, never one cut short, and
// a store that fails keeps the last whole file.
constexpr char kNewCacheFileSuffix[] = ".new";
// Creates (or empties) the new file of the cache file `path` and opens it for writing. Null when it
// cannot be created.
FILE* createCacheFile(const char* path);
// Closes `file`, the new file of `path`, and puts it in place of `path`. False when the close or
// the rename failed; the new file is gone then and the old one stays.
[[nodiscard]] bool commitCacheFile(FILE* file, const char* path);
// Closes `file`, the new file of `path`, and removes it; the old file stays.
void discardCacheFile(FILE* file, const char* path);

constexpr int kCacheFileValid = 0;
constexpr int kCacheFileBad = 1;
constexpr int kCacheFileMissing = 6;

// Opens the cache file `path` of `fileId` for reading and checks its header.
// kCacheFileValid: *file is open and positioned on the body; the caller reads it and closes it.
//   With a `timestamp`, the file has the full header, *timestamp holds its time and the file was
//   written for the configured "server"; without one only the version pair was read.
// kCacheFileMissing: the file could not be opened; *file is null.
// kCacheFileBad: the header is bad and *file is left alone. The file has been deleted, except
//   when even the version pair could not be read.
[[nodiscard]] int openCacheFile(const char* path, int32_t fileId, FILE** file, int64_t* timestamp);

}  // namespace slm
