// The cache version table, the cache header coding and the validating open of cache files.
#include "agent_core/cache/cache_file.h"

#include <cstring>
#include <utility>

#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

CacheVersion cache_versions[kCacheFileCount];

bool validFileId(int32_t fileId) {
  if (fileId >= 0 && fileId < kCacheFileCount) return true;
  SLM_TRACE(1, "CACHE - Bad file_id value %d", fileId);
  return false;
}

// Closes and deletes a file whose content must not be used, so that its cache starts empty.
int discard(FileHandle file, const char* path) {
  file.reset();
  remove(path);
  return kCacheFileBad;
}

// The new file of `path`: its name with kNewCacheFileSuffix, in kNewCachePathSize bytes.
constexpr size_t kNewCachePathSize = kCachePathSize + sizeof kNewCacheFileSuffix;
void newFilePath(const char* path, char* out) {
  size_t length = strlen(copyBounded(out, kCachePathSize - 1, path));
  copyBounded(out + length, sizeof kNewCacheFileSuffix - 1, kNewCacheFileSuffix);
}

}  // namespace

FILE* createCacheFile(const char* path) {
  char newPath[kNewCachePathSize];
  newFilePath(path, newPath);
  return fopen(newPath, "wbe");
}

bool commitCacheFile(FILE* file, const char* path) {
  char newPath[kNewCachePathSize];
  newFilePath(path, newPath);
  // The close writes what the stream still buffers: on a full disk it is the close that fails.
  if (fclose(file) != 0 || rename(newPath, path) != 0) {
    remove(newPath);
    return false;
  }
  return true;
}

void discardCacheFile(FILE* file, const char* path) {
  char newPath[kNewCachePathSize];
  newFilePath(path, newPath);
  fclose(file);
  remove(newPath);
}

void encodeCacheVersion(const CacheVersion& version, uint8_t* out) {
  putFixed32(out + kCacheMajorOffset, version.majorNumber);
  putFixed32(out + kCacheMinorOffset, version.minorNumber);
}

CacheVersion decodeCacheVersion(const uint8_t* in) {
  return CacheVersion{getFixed32(in + kCacheMajorOffset), getFixed32(in + kCacheMinorOffset)};
}

void encodeCacheHeader(const CacheHeader& header, uint8_t* out) {
  encodeCacheVersion(header.version, out);
  // The field holds 64 bits but the time behind it has 32: a time from 2038 on reads as negative,
  // as it always has in these files.
  int64_t timestamp = static_cast<int32_t>(static_cast<uint32_t>(header.timestamp));
  putFixed64(out + kCacheTimestampOffset, static_cast<uint64_t>(timestamp));
  putText(out + kCacheServerNameOffset, kCacheServerNameSize, header.serverName);
}

void decodeCacheHeader(const uint8_t* in, CacheHeader* header) {
  header->version = decodeCacheVersion(in);
  header->timestamp = static_cast<int64_t>(getFixed64(in + kCacheTimestampOffset));
  getText(in + kCacheServerNameOffset, kCacheServerNameSize, header->serverName);
}

char* cacheFilePath(const char* fileName, char* out) {
  return rootedFilePath(kCacheDir, fileName, out);
}

char* rootedFilePath(const char* directory, const char* fileName, char* out) {
  rootedPath(directory, out, kCachePathSize);
  size_t length = strlen(out);
  if (length + 1 < kCachePathSize) out[length++] = '/';
  out[length] = '\0';
  // The name gets what is left of 4094 characters after the directory and the slash.
  size_t room = length < kCachePathSize - 2 ? kCachePathSize - 2 - length : 0;
  copyBounded(out + length, room, fileName);
  return out;
}

int setCacheVersion(int32_t fileId, uint32_t majorNumber, uint32_t minorNumber) {
  if (!validFileId(fileId)) return kCacheVersionBad;
  cache_versions[fileId] = CacheVersion{majorNumber, minorNumber};
  return kCacheVersionOk;
}

int getCacheVersion(int32_t fileId, CacheVersion* version) {
  if (!validFileId(fileId)) return kCacheVersionBad;
  *version = cache_versions[fileId];
  return kCacheVersionOk;
}

int testCacheVersion(int32_t fileId, const CacheVersion& read) {
  if (!validFileId(fileId)) return kCacheVersionBad;
  const CacheVersion& actual = cache_versions[fileId];
  // The file's number goes under "actual" and the table's under "read": the labels are swapped on
  // purpose and kept that way.
  if (read.majorNumber != actual.majorNumber) {
    SLM_TRACE(1, "WARNING - The major version is different: actual %d, read %d",
              static_cast<int>(read.majorNumber), static_cast<int>(actual.majorNumber));
    return kCacheVersionBad;
  }
  if (read.minorNumber != actual.minorNumber) {
    SLM_TRACE(1, "WARNING - The minor version is different: actual %d, read %d",
              static_cast<int>(read.minorNumber), static_cast<int>(actual.minorNumber));
    return kCacheVersionBad;
  }
  return kCacheVersionOk;
}

int openCacheFile(const char* path, int32_t fileId, FILE** file, int64_t* timestamp) {
  FileHandle handle(fopen(path, "rbe"));
  if (handle == nullptr) {
    *file = nullptr;
    return kCacheFileMissing;
  }

  // Filled in the order the header is read; only the parts read so far are decoded.
  uint8_t bytes[kCacheHeaderSize] = {};
  if (fread(bytes, 1, kCacheVersionSize, handle.get()) != kCacheVersionSize) {
    // The one bad header that stays on disk; the next store of this cache overwrites it.
    SLM_TRACE(0, "ERROR - Reading cache version from file %s", path);
    return kCacheFileBad;
  }
  CacheVersion version = decodeCacheVersion(bytes);
  if (testCacheVersion(fileId, version) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Checking cache version for file %s", path);
    return discard(std::move(handle), path);
  }
  SLM_TRACE(2, "OK - Cache version in file %s is %d.%d", path,
            static_cast<int>(version.majorNumber), static_cast<int>(version.minorNumber));

  if (timestamp == nullptr) {
    *file = handle.release();
    return kCacheFileValid;
  }

  if (fread(bytes + kCacheTimestampOffset, 1, kCacheTimestampSize, handle.get()) !=
      kCacheTimestampSize) {
    SLM_TRACE(0, "ERROR - Reading timestamp from file %s", path);
    return discard(std::move(handle), path);
  }
  if (fread(bytes + kCacheServerNameOffset, 1, kCacheServerNameSize, handle.get()) !=
      kCacheServerNameSize) {
    SLM_TRACE(0, "ERROR - Reading the preferred server name from file %s", path);
    return discard(std::move(handle), path);
  }
  CacheHeader header;
  decodeCacheHeader(bytes, &header);

  // Only the length of the configured name is compared: a file written for a server whose name
  // begins with it is kept, and an empty setting accepts every file. A file written for another
  // server describes that server's world and must not be used.
  char configured[kCacheServerNameSize] = "";
  if (getConfigurationValue("server", configured, sizeof configured) != kConfigurationValueFound)
    configured[0] = '\0';
  if (strncmp(header.serverName, configured, strlen(configured)) != 0) {
    SLM_TRACE(1,
              "CACHE - Server in configuration file different from the one in "
              "file %s.",
              path);
    return discard(std::move(handle), path);
  }

  *timestamp = header.timestamp;
  *file = handle.release();
  return kCacheFileValid;
}

}  // namespace slm
