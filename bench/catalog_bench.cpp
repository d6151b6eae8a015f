// Catalog benchmarks: file lookups in the catalog's files table (its open index) beside a million
// and the containers' usual 101 chained buckets, in a tight loop and with the caches emptied before
// each lookup; the merge and the download parser on a canned answer, the download from the
// reference server's generator, and the memory a loaded catalog holds. The large sizes (100k and
// 1M files) and the generator download are registered only with SLM_BENCH_FULL=1; without it one
// short pass on 10k files keeps every benchmark compiling and running. Runs on the benchmark
// thread; the canned answer comes from a loopback server thread.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/catalog.h"
#include "agent_core/communication/slm.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/loopback_server.h"
#include "support/runtime_server_process.h"
#include "support/temp_root.h"

namespace slm {
namespace {

constexpr int64_t kSmokeFiles = 10000;
constexpr int64_t kFullFiles = 1000000;
constexpr int32_t kComponents = 50;
constexpr int64_t kCatalogTime = 1700000000000;
// The lookups cycle through this many pre-shuffled keys: at a million files they touch far more
// entries than the last-level cache holds, as lookups of unrelated executables do.
constexpr size_t kFullKeys = size_t{1} << 17;
constexpr size_t kSmokeKeys = size_t{1} << 12;
constexpr int64_t kMinSizeBytes = 1024;
constexpr int64_t kMaxSizeBytes = 50 * 1024 * 1024;

bool fullRun() {
  const char* full = getenv("SLM_BENCH_FULL");
  return full != nullptr && strcmp(full, "1") == 0;
}

int64_t largestCatalog() {
  return fullRun() ? kFullFiles : kSmokeFiles;
}

// A catalog file as the generator keeps it, before it becomes a FileRecord or an answer line.
struct CatalogFile {
  std::string name;
  int64_t size;
  int32_t attribute1;
  int32_t attribute2;
  int32_t componentCount;  // 1 to 3
  int64_t componentIds[3];
};

// Stems of executable names as catalogs hold them, and stems no catalog name starts like, so that a
// key built from one of those is never found.
constexpr char kStems[] =
    "python3 perl bash gcc g++ clang systemd-logind systemd-udevd journald libreoffice soffice.bin "
    "Xorg Xwayland firefox-esr thunderbird java node ruby php-fpm nginx httpd sshd dbus-daemon "
    "NetworkManager pulseaudio pipewire gnome-shell kwin_x11 plasmashell containerd dockerd "
    "kubelet "
    "postgres mysqld redis-server rsync tar gzip xz curl wget git vim.basic emacs make cmake ninja "
    "ld.gold objdump gdb strace htop cupsd cron rsyslogd flatpak gimp inkscape blender "
    "qemu-system-x86_64 R octave pdftex ffmpeg vlc";
constexpr char kUnknownStems[] =
    "inhouse-report payroll_batch setup-helper a.out site_sync legacy-app test-runner backup-agent "
    "data_import";

std::vector<std::string> words(const char* text) {
  std::vector<std::string> out;
  for (const char* at = text; *at != '\0';) {
    size_t length = strcspn(at, " ");
    out.emplace_back(at, length);
    at += length;
    at += strspn(at, " ");
  }
  return out;
}

// A name as executables are named: a stem, often a version, sometimes upper-cased.
std::string executableName(std::mt19937_64& random, const std::vector<std::string>& stems) {
  std::string name = stems[random() % stems.size()];
  char suffix[32] = "";
  int major = static_cast<int>(random() % 40), minor = static_cast<int>(random() % 20);
  switch (random() % 6) {
    case 0:
      break;
    case 1:
      snprintf(suffix, sizeof suffix, "-%d", major);
      break;
    case 2:
      snprintf(suffix, sizeof suffix, "%d.%d", major % 4, minor);
      break;
    case 3:
      snprintf(suffix, sizeof suffix, "-%d.%d.%d", major, minor, static_cast<int>(random() % 50));
      break;
    case 4:
      snprintf(suffix, sizeof suffix, ".%d", major);
      break;
    default:
      snprintf(suffix, sizeof suffix, "_%d.%d", major, minor);
      break;
  }
  name += suffix;
  uint64_t variant = random() % 100;
  if (variant < 3) {
    for (char& c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  } else if (variant < 5) {
    name[0] = static_cast<char>(toupper(static_cast<unsigned char>(name[0])));
  }
  return name;
}

int64_t logUniformSize(std::mt19937_64& random) {
  std::uniform_real_distribution<double> exponent(std::log(double(kMinSizeBytes)),
                                                  std::log(double(kMaxSizeBytes)));
  return static_cast<int64_t>(std::exp(exponent(random)));
}

struct GeneratedCatalog {
  std::vector<CatalogFile> files;
  std::vector<int64_t> sortedSizes;  // every size in `files`
};

// The largest catalog of the run, generated once. Every smaller catalog is a prefix of it. Sizes
// are unique but for ~1% pairs of files that share a size under different names; a drawn size
// that is taken is drawn again, so every prefix keeps close to the log-uniform spread.
const GeneratedCatalog& generatedCatalog() {
  static const GeneratedCatalog catalog = [] {
    GeneratedCatalog generated;
    std::mt19937_64 random(20240611);
    const std::vector<std::string> stems = words(kStems);
    const auto count = static_cast<size_t>(largestCatalog());
    generated.files.reserve(count);
    std::vector<bool> taken(static_cast<size_t>(kMaxSizeBytes) + 1);
    while (generated.files.size() < count) {
      CatalogFile file;
      file.name = executableName(random, stems);
      do {
        file.size = logUniformSize(random);
      } while (taken[static_cast<size_t>(file.size)]);
      taken[static_cast<size_t>(file.size)] = true;
      file.attribute1 = static_cast<int32_t>(random() % 4);
      file.attribute2 = static_cast<int32_t>(random() % 4);
      file.componentCount = 1 + static_cast<int32_t>(random() % 3);
      for (int64_t& id : file.componentIds) id = 1 + static_cast<int64_t>(random() % kComponents);
      generated.files.push_back(file);
      if (random() % 100 == 0 && generated.files.size() < count) {
        CatalogFile twin = file;
        while (strcasecmp(twin.name.c_str(), file.name.c_str()) == 0) {
          twin.name = executableName(random, stems);
        }
        generated.files.push_back(twin);
      }
    }
    for (const CatalogFile& file : generated.files) generated.sortedSizes.push_back(file.size);
    std::sort(generated.sortedSizes.begin(), generated.sortedSizes.end());
    return generated;
  }();
  return catalog;
}

FileRecord fileRecord(const CatalogFile& file) {
  FileRecord record{};
  copyBounded(record.name, kFileNameSize - 1, file.name.c_str());
  record.size = file.size;
  record.attribute1 = file.attribute1;
  record.attribute2 = file.attribute2;
  for (int32_t i = 0; i < file.componentCount; ++i) record.componentIds[i] = file.componentIds[i];
  record.componentCount = file.componentCount;
  return record;
}

ComponentRecord componentRecord(int32_t id) {
  ComponentRecord record{};
  record.compId = id;
  record.attributes[0] = static_cast<uint8_t>(id % 3);
  return record;
}

// The components and the first `count` files as the download leaves them for the merge.
struct CatalogLists {
  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  CatalogLists() = default;
  explicit CatalogLists(int64_t count) {
    for (int32_t id = 1; id <= kComponents; ++id) {
      ComponentRecord component = componentRecord(id);
      (void)append(components, &component);
    }
    const std::vector<CatalogFile>& all = generatedCatalog().files;
    for (int64_t i = 0; i < count; ++i) {
      FileRecord record = fileRecord(all[static_cast<size_t>(i)]);
      (void)append(files, &record);
    }
  }
  ~CatalogLists() {
    deleteList(components);
    deleteList(files);
  }
  CatalogLists(const CatalogLists&) = delete;
  CatalogLists& operator=(const CatalogLists&) = delete;
};

// The lists of the largest catalog, built once for every merge.
const CatalogLists& largestCatalogLists() {
  static const CatalogLists lists(largestCatalog());
  return lists;
}

// The agent state the catalog needs: a temporary root with a cache directory, the agent's
// identity, the service layer and a server cache whose preferred server is the one in use.
class BenchAgent {
 public:
  BenchAgent() {
    setTraceLevel(-1);
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    root_.writeFile("etc/kvdagent.ini",
                    "agentid=4711\ndivisionid=42\ntag=bench\ncustomer=bench\nserver=127.0.0.1\n");
    ok_ = loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()) == kConfigurationLoaded &&
          initAgentInfo() == kAgentValueOk &&
          setAgentCharValue(kAgentHostName, "bench-node") == kAgentValueOk &&
          initSlmServices(nullptr, 30) == kSlmServicesReady && useServer(kUncontactedPort);
  }
  BenchAgent(const BenchAgent&) = delete;
  BenchAgent& operator=(const BenchAgent&) = delete;

  bool ok() const { return ok_; }

  // Makes 127.0.0.1:`port` the preferred server of a fresh server cache.
  bool useServer(uint16_t port) {
    if (port_ != 0) deleteServersCache();
    ServerInfo preferred{};
    snprintf(preferred.address.host, kServerHostSize, "127.0.0.1");
    snprintf(preferred.address.path, kServerPathSize, "/");
    preferred.address.port = port;
    port_ = createServersCache(&preferred) == kSrvsOk ? port : 0;
    return port_ != 0;
  }

  std::string cachePath(const std::string& name) const {
    return root_.file("var/qsam/cache/" + name);
  }

 private:
  // The catalog's file records only the preferred server's host: until a benchmark serves an
  // answer, a port that is never contacted is enough.
  static constexpr uint16_t kUncontactedPort = 9;

  test::TempDir root_;
  uint16_t port_ = 0;
  bool ok_ = false;
};

BenchAgent& benchAgent() {
  static BenchAgent agent;
  return agent;
}

// The agent meets a large catalog in memory it has not touched yet: what earlier benchmarks freed
// goes back to the system before each measured part, which then pays the page faults the agent
// pays, whatever ran before it.
void returnFreedMemory() {
  malloc_trim(0);
}

// The process-wide catalog cache, created by the benchmarks through these two functions only.
// -1: no cache; otherwise the number of generated files it holds.
int64_t latFiles = -1;

// Deletes the cache without writing its records: it is emptied first, so the store at the delete
// writes a bare header.
void releaseLat() {
  if (latFiles < 0) return;
  (void)resetComponentsCache();
  deleteComponentsCache();
  remove(benchAgent().cachePath(kCatalogFileName).c_str());
  latFiles = -1;
}

// The files table as the agent makes it (the open index), or in a million chained buckets, for
// comparison.
enum class FilesTable { kOpenIndex, kChained };
constexpr int32_t kChainedFileBuckets = 1048573;
FilesTable latTable = FilesTable::kOpenIndex;

// A fresh empty cache (no catalog file is there to load).
bool createEmptyLat(FilesTable table = FilesTable::kOpenIndex) {
  releaseLat();
  const int created = table == FilesTable::kOpenIndex
                          ? createComponentsCacheWithSlots(kCatalogFileSlots)
                          : createComponentsCacheWithBuckets(kChainedFileBuckets);
  if (created != kLatOk) return false;
  latFiles = 0;
  latTable = table;
  return true;
}

// The cache holding the first `count` generated files, merged through updateCatalog.
bool loadLat(int64_t count, FilesTable table) {
  if (latFiles == count && latTable == table) return true;
  if (!createEmptyLat(table)) return false;
  CatalogLists lists(count);
  if (updateCatalog(lists.components, lists.files) != kLatOk) return false;
  latFiles = count;
  return getCatalogFilesNumber() == count;
}

// A lookup's key as the monitor has it: the base name and the size of the started file, which it
// puts into a file record of its own before it asks the catalog.
struct LookupKey {
  std::string name;
  int64_t size;
};

// Lookup keys, pre-shuffled: hits are files of the first `count` ones; misses are catalog names
// with sizes no catalog file has, and names no catalog file has with any size.
std::vector<LookupKey> lookupKeys(int64_t count, bool hit) {
  const GeneratedCatalog& catalog = generatedCatalog();
  std::mt19937_64 random(hit ? static_cast<uint64_t>(count) : 7);
  const std::vector<std::string> unknownStems = words(kUnknownStems);
  std::vector<LookupKey> keys(fullRun() ? kFullKeys : kSmokeKeys);
  for (size_t i = 0; i < keys.size(); ++i) {
    const CatalogFile& file =
        catalog.files[random() % static_cast<uint64_t>(hit ? count : catalog.files.size())];
    keys[i] = {file.name, file.size};
    if (hit) continue;
    if (i % 2 == 0) {
      do {
        keys[i].size = logUniformSize(random);
      } while (
          std::binary_search(catalog.sortedSizes.begin(), catalog.sortedSizes.end(), keys[i].size));
    } else {
      keys[i] = {executableName(random, unknownStems), logUniformSize(random)};
    }
  }
  std::shuffle(keys.begin(), keys.end(), random);
  return keys;
}

// Keys for the catalog of `count` files, kept while that size is being looked up.
const std::vector<LookupKey>& keysFor(int64_t count, bool hit) {
  static int64_t keyedCount = -1;
  static std::vector<LookupKey> hits;
  static const std::vector<LookupKey> misses = lookupKeys(0, false);
  if (!hit) return misses;
  if (keyedCount != count) {
    hits = lookupKeys(count, true);
    keyedCount = count;
  }
  return hits;
}

// Puts `key` into the record a lookup is asked with, as the monitor fills its own.
void fillKey(const LookupKey& key, FileRecord* record) {
  copyBounded(record->name, kFileNameSize - 1, key.name.c_str());
  record->size = key.size;
}

// Lookups of `hit` or missing keys in a catalog of range(0) files. The component lookups that
// follow a hit are the same whatever the files table and are left out.
void BM_FindFileEntry(benchmark::State& state, FilesTable table, bool hit) {
  const int64_t count = state.range(0);
  if (!benchAgent().ok() || !loadLat(count, table)) {
    state.SkipWithError("the catalog could not be built");
    return;
  }
  const std::vector<LookupKey>& keys = keysFor(count, hit);
  FileRecord key{};
  FileRecord record;
  size_t next = 0;
  int64_t found = 0;
  for (auto _ : state) {
    fillKey(keys[next], &key);
    found += findFileEntry(&key, &record, nullptr, nullptr) == kLatOk;
    benchmark::DoNotOptimize(record);
    next = next + 1 == keys.size() ? 0 : next + 1;
  }
  state.SetItemsProcessed(state.iterations());
  if (found != (hit ? state.iterations() : 0)) state.SkipWithError("a lookup went wrong");
}

// Bytes that, read through, leave nothing of a catalog cached: twice the largest cache.
size_t evictionBytes() {
  int64_t largest = 32 << 20;
  for (const benchmark::CPUInfo::CacheInfo& cache : benchmark::CPUInfo::Get().caches) {
    largest = std::max<int64_t>(largest, cache.size);
  }
  return static_cast<size_t>(2 * largest);
}

// Lookups as a process start on a busy machine meets them: since the last one the caches have held
// other work. Before each lookup the benchmark reads through a buffer larger than every cache, and
// times the lookup alone. The tight loop above measures the other extreme, where everything a
// small catalog holds stays cached from one lookup to the next.
void BM_FindFileEntryCold(benchmark::State& state, bool hit) {
  const int64_t count = state.range(0);
  if (!benchAgent().ok() || !loadLat(count, FilesTable::kOpenIndex)) {
    state.SkipWithError("the catalog could not be built");
    return;
  }
  static const std::vector<uint64_t> other(evictionBytes() / sizeof(uint64_t), 1);
  constexpr size_t kWordsPerLine = 64 / sizeof(uint64_t);
  const std::vector<LookupKey>& keys = keysFor(count, hit);
  FileRecord key{};
  FileRecord record;
  size_t next = 0;
  int64_t found = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < other.size(); i += kWordsPerLine) sum += other[i];
    benchmark::DoNotOptimize(sum);
    fillKey(keys[next], &key);
    const auto begin = std::chrono::steady_clock::now();
    found += findFileEntry(&key, &record, nullptr, nullptr) == kLatOk;
    benchmark::DoNotOptimize(record);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    next = next + 1 == keys.size() ? 0 : next + 1;
  }
  state.SetItemsProcessed(state.iterations());
  if (found != (hit ? state.iterations() : 0)) state.SkipWithError("a lookup went wrong");
}

// The files table with the containers' usual 101 buckets, filled with the first `count` files.
// Filling it through updateCatalog would take quadratic time (each new file walks its chain of up
// to ~10,000 entries at a million files), so the entries are added directly.
HashTable* bareTableWith101Buckets(int64_t count) {
  static int64_t filledCount = -1;
  static HashTable* table = nullptr;
  if (filledCount == count) return table;
  deleteHashTable(table);
  filledCount = -1;
  table = initHashTable(sizeof(FileRecord), kHashBuckets, 1);
  if (table == nullptr) return nullptr;
  const std::vector<CatalogFile>& files = generatedCatalog().files;
  for (int64_t i = 0; i < count; ++i) {
    FileRecord record = fileRecord(files[static_cast<size_t>(i)]);
    void* stored = addHtElement(table, record.size);
    if (stored == nullptr) return nullptr;
    memcpy(stored, &record, sizeof record);
  }
  filledCount = count;
  return table;
}

// findFileEntry's work on a 101-bucket table: the same walk (findHtElement with compareFiles) and
// the copy of the found record, without the catalog's read lock, which costs the same with any
// bucket count and is small beside a walk of this length.
void BM_FindIn101Buckets(benchmark::State& state, bool hit) {
  const int64_t count = state.range(0);
  HashTable* table = bareTableWith101Buckets(count);
  if (table == nullptr) {
    state.SkipWithError("the table could not be built");
    return;
  }
  const std::vector<LookupKey>& keys = keysFor(count, hit);
  FileRecord key{};
  FileRecord record;
  size_t next = 0;
  int64_t found = 0;
  for (auto _ : state) {
    fillKey(keys[next], &key);
    const void* stored = findHtElement(table, key.size, &key, compareFiles);
    if (stored != nullptr) {
      memcpy(&record, stored, sizeof record);
      ++found;
    }
    benchmark::DoNotOptimize(record);
    next = next + 1 == keys.size() ? 0 : next + 1;
  }
  state.SetItemsProcessed(state.iterations());
  if (found != (hit ? state.iterations() : 0)) state.SkipWithError("a lookup went wrong");
}

// A service answer of the server: status line, head, payload of the whole catalog (the first
// `count` generated files), trailer.
std::string cannedCatalogAnswer(int64_t count) {
  std::string body = std::to_string(kCatalogTime) + "\r\n<components>\r\n";
  for (int32_t id = 1; id <= kComponents; ++id) {
    ComponentRecord component = componentRecord(id);
    body += std::to_string(id) + "|" + std::to_string(component.attributes[0]) + "|0|0\r\n";
  }
  body += "</components>\r\n<files>\r\n";
  const std::vector<CatalogFile>& files = generatedCatalog().files;
  char line[512];
  for (int64_t i = 0; i < count; ++i) {
    const CatalogFile& file = files[static_cast<size_t>(i)];
    int length = snprintf(line, sizeof line, "%s|%lld|%d|%d|", file.name.c_str(),
                          static_cast<long long>(file.size), file.attribute1, file.attribute2);
    body.append(line, static_cast<size_t>(length));
    for (int32_t c = 0; c < file.componentCount; ++c) {
      body += std::to_string(file.componentIds[c]) + "|";
    }
    body += "\r\n";
  }
  body += "</files>\r\n<response:0,0:ok>\r\n";
  return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nSCPVersion: 1.1.1\r\nService: 3\r\n\r\n" + body;
}

const std::string& largestCatalogAnswer() {
  static const std::string answer = cannedCatalogAnswer(largestCatalog());
  return answer;
}

// The merge of the largest catalog's lists into an empty catalog, as the first download does, or
// `over` a catalog that already holds every file, where each file replaces its entry.
void BM_UpdateCatalog(benchmark::State& state, bool over) {
  const CatalogLists& lists = largestCatalogLists();
  if (!benchAgent().ok()) {
    state.SkipWithError("the agent could not be set up");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    bool ready = createEmptyLat();
    if (ready && over) ready = updateCatalog(lists.components, lists.files) == kLatOk;
    returnFreedMemory();
    state.ResumeTiming();
    int merged = ready ? updateCatalog(lists.components, lists.files) : kLatFailed;
    state.PauseTiming();
    bool whole = merged == kLatOk && getCatalogFilesNumber() == entries(lists.files);
    releaseLat();
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("the merge went wrong");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * entries(lists.files));
}

// downloadCatalog of the canned answer for the largest catalog from a loopback server thread, and
// with `merge` the merge of what it read into an empty catalog after it.
void BM_DownloadCatalog(benchmark::State& state, bool merge) {
  const std::string& answer = largestCatalogAnswer();
  if (!benchAgent().ok()) {
    state.SkipWithError("the agent could not be set up");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<test::LoopbackServer> peer(std::in_place,
                                             test::LoopbackScript{.replies = {answer}});
    bool ready = benchAgent().useServer(peer->port()) && (!merge || createEmptyLat());
    std::optional<CatalogLists> lists(std::in_place);
    int64_t time = 0;
    returnFreedMemory();
    state.ResumeTiming();
    int result = ready ? downloadCatalog(&time, lists->components, lists->files) : kServiceFailed;
    if (merge && result == kServiceOk) {
      result =
          updateCatalog(lists->components, lists->files) == kLatOk ? kServiceOk : kServiceFailed;
    }
    state.PauseTiming();
    bool whole = result == kServiceOk && time == kCatalogTime &&
                 entries(lists->files) == largestCatalog() &&
                 entries(lists->components) == kComponents &&
                 (!merge || getCatalogFilesNumber() == largestCatalog());
    lists.reset();
    peer.reset();
    releaseLat();
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("the download went wrong");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * largestCatalog());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(answer.size()));
}

// downloadCatalog of the reference runtime server's generated catalog of a million files.
void BM_DownloadGeneratedCatalog(benchmark::State& state) {
  static test::RuntimeServerProcess server(
      R"({"require_plugin": false, "catalog": {"generate": {"files": 1000000, "components": 50}}})");
  if (!benchAgent().ok() || server.port() == 0 || !benchAgent().useServer(server.port())) {
    state.SkipWithError("the runtime server could not be used");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<CatalogLists> lists(std::in_place);
    int64_t time = 0;
    returnFreedMemory();
    state.ResumeTiming();
    int result = downloadCatalog(&time, lists->components, lists->files);
    state.PauseTiming();
    bool whole = result == kServiceOk && entries(lists->files) == kFullFiles;
    lists.reset();
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("the download went wrong");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kFullFiles);
}

// VmRSS of this process in bytes, 0 when it cannot be read.
int64_t residentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atoll(line.c_str() + 6) * 1024;
  }
  return 0;
}

// The memory of the largest catalog loaded from its "catalog.dat" at start, against the bytes of
// its file records; the time is the load's. The file is written once by the delete after a merge
// and kept under another name, so that the stores of later deletes do not overwrite it.
void BM_LoadedCatalogMemory(benchmark::State& state) {
  const int64_t count = largestCatalog();
  const std::string path = benchAgent().cachePath(kCatalogFileName);
  const std::string kept = benchAgent().cachePath("catalog.bench");
  static bool written = false;
  if (!written && benchAgent().ok() && createEmptyLat()) {
    const CatalogLists& lists = largestCatalogLists();
    if (updateCatalog(lists.components, lists.files) == kLatOk) {
      deleteComponentsCache();  // stores the catalog
      latFiles = -1;
      written = rename(path.c_str(), kept.c_str()) == 0;
    }
  }
  if (!written) {
    state.SkipWithError("the catalog file could not be written");
    return;
  }
  releaseLat();
  int64_t before = 0, after = 0;
  for (auto _ : state) {
    state.PauseTiming();
    bool ready = rename(kept.c_str(), path.c_str()) == 0;
    // What the load reuses of the memory freed earlier shows up again in the resident size.
    returnFreedMemory();
    before = residentBytes();
    state.ResumeTiming();
    bool loaded = ready && createComponentsCache() == kLatOk;
    state.PauseTiming();
    after = residentBytes();
    if (loaded) latFiles = getCatalogFilesNumber();
    bool whole = loaded && latFiles == count;
    ready = rename(path.c_str(), kept.c_str()) == 0;
    releaseLat();
    state.ResumeTiming();
    if (!whole || !ready) {
      state.SkipWithError("the catalog did not load whole");
      break;
    }
  }
  using benchmark::Counter;
  const double delta = static_cast<double>(after - before);
  state.counters["rss_before"] = Counter(double(before), Counter::kDefaults, Counter::kIs1024);
  state.counters["rss_after"] = Counter(double(after), Counter::kDefaults, Counter::kIs1024);
  state.counters["rss_delta"] = Counter(delta, Counter::kDefaults, Counter::kIs1024);
  state.counters["record_bytes"] =
      Counter(double(count) * kFileRecordSize, Counter::kDefaults, Counter::kIs1024);
  state.counters["rss_ratio"] = delta / (double(count) * kFileRecordSize);
  state.SetItemsProcessed(state.iterations() * count);
}

// Registered here rather than with BENCHMARK so that the sizes follow SLM_BENCH_FULL; lookups come
// by size, both tables side by side.
const bool registered = [] {
  std::vector<int64_t> sizes = {kSmokeFiles};
  if (fullRun()) sizes.insert(sizes.end(), {100000, kFullFiles});
  for (int64_t files : sizes) {
    for (bool hit : {true, false}) {
      std::string suffix = hit ? "/hit" : "/miss";
      benchmark::RegisterBenchmark(
          ("catalog_lookup/open_index" + suffix).c_str(),
          [hit](benchmark::State& state) { BM_FindFileEntry(state, FilesTable::kOpenIndex, hit); })
          ->ArgName("files")
          ->Arg(files);
      benchmark::RegisterBenchmark(
          ("catalog_lookup/buckets:" + std::to_string(kChainedFileBuckets) + suffix).c_str(),
          [hit](benchmark::State& state) { BM_FindFileEntry(state, FilesTable::kChained, hit); })
          ->ArgName("files")
          ->Arg(files);
      benchmark::RegisterBenchmark(
          ("catalog_lookup/open_index/cold" + suffix).c_str(),
          [hit](benchmark::State& state) { BM_FindFileEntryCold(state, hit); })
          ->ArgName("files")
          ->Arg(files)
          ->Iterations(fullRun() ? 500 : 3)
          ->UseManualTime()
          ->Unit(benchmark::kNanosecond);
      benchmark::RegisterBenchmark(
          ("catalog_lookup/buckets:" + std::to_string(kHashBuckets) + suffix).c_str(),
          [hit](benchmark::State& state) { BM_FindIn101Buckets(state, hit); })
          ->ArgName("files")
          ->Arg(files);
    }
  }
  const std::string files = "/files:" + std::to_string(largestCatalog());
  // One pass of these takes a second or more at full size: three passes and their median stand
  // against the machine's other load. Time is the benchmark thread's CPU time, page faults
  // included; the generator download counts the wall clock, since the server's work is its point.
  auto heavy = [](const std::string& name, auto run) {
    benchmark::internal::Benchmark* entry =
        benchmark::RegisterBenchmark(name.c_str(), run)->Unit(benchmark::kMillisecond);
    if (fullRun()) entry->Repetitions(3)->DisplayAggregatesOnly(true);
    return entry;
  };
  heavy("catalog_merge/into_empty" + files,
        [](benchmark::State& state) { BM_UpdateCatalog(state, false); });
  heavy("catalog_merge/over_same" + files,
        [](benchmark::State& state) { BM_UpdateCatalog(state, true); });
  heavy("catalog_download/canned" + files,
        [](benchmark::State& state) { BM_DownloadCatalog(state, false); });
  heavy("catalog_download/canned+merge" + files,
        [](benchmark::State& state) { BM_DownloadCatalog(state, true); });
  if (fullRun()) {
    heavy("catalog_download/generator/files:" + std::to_string(kFullFiles),
          BM_DownloadGeneratedCatalog)
        ->UseRealTime();
  }
  benchmark::RegisterBenchmark(("catalog_memory/loaded" + files).c_str(), BM_LoadedCatalogMemory)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
}  // namespace slm
