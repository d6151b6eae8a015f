// Catalog benchmarks: file lookups in the catalog's compact files table beside the same lookups
// in the layout it replaced (408-byte records in an open index), in a tight loop and with the
// caches emptied before each lookup; the merge and the download parser on a canned answer, the
// download from the reference server's generator; and the memory of the real daemon (the build's
// own kvdagent, or KVDAGENT_BIN; SLM_BENCH_OTHER_AGENT names another build to measure beside it)
// that loads a large catalog.dat. The large sizes (100k and 1M files) and the generator download
// are registered only with SLM_BENCH_FULL=1; without it one short pass on 10k files keeps every
// benchmark compiling and running. Runs on the benchmark thread; the canned answer comes from a
// loopback server thread, the daemon is a process of its own.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/catalog.h"
#include "agent_core/communication/slm.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/slm_lock.h"
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
  int32_t componentCount;  // 1 to 16
  int64_t componentIds[kMaxFileComponents];
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

// How many components a catalog file belongs to, as in the catalogs of large organisations: one,
// but for 1% of the files 2 to 16.
int32_t drawComponentCount(std::mt19937_64& random) {
  return random() % 100 == 0 ? 2 + static_cast<int32_t>(random() % 15) : 1;
}

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
      file.componentCount = drawComponentCount(random);
      for (int32_t c = 0; c < file.componentCount; ++c) {
        file.componentIds[c] = 1 + static_cast<int64_t>(random() % kComponents);
      }
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

// A fresh empty cache (no catalog file is there to load).
bool createEmptyLat() {
  releaseLat();
  if (createComponentsCache() != kLatOk) return false;
  latFiles = 0;
  return true;
}

// The cache holding the first `count` generated files, merged through updateCatalog.
bool loadLat(int64_t count) {
  if (latFiles == count) return true;
  if (!createEmptyLat()) return false;
  CatalogLists lists(count);
  if (updateCatalog(lists.components, lists.files) != kLatOk) return false;
  latFiles = count;
  return getCatalogFilesNumber() == count;
}

// The files table as the catalog kept it before its entries were compact: each file a whole
// 408-byte record in an open index that started with 1,572,864 slots, filled as updateCatalog
// filled it, and looked up as findFileEntry looked it up, under a read lock of the same kind.
struct WholeRecords {
  static constexpr size_t kFirstSlots = 1572864;
  HashTable* table = nullptr;
  SlmRwLock* lock = nullptr;
  int64_t count = -1;

  bool fill(int64_t files) {
    if (count == files) return true;
    deleteHashTable(table);
    count = -1;
    table = initOpenHashTable(sizeof(FileRecord), kFirstSlots);
    if (table == nullptr || (lock == nullptr && initRwl(&lock) != kRwlOk)) return false;
    const std::vector<CatalogFile>& all = generatedCatalog().files;
    for (int64_t i = 0; i < files; ++i) {
      const FileRecord record = fileRecord(all[static_cast<size_t>(i)]);
      void* stored = findHtElement(table, record.size, &record, compareFiles);
      if (stored == nullptr) stored = addHtElement(table, record.size);
      if (stored == nullptr) return false;
      memcpy(stored, &record, sizeof record);
    }
    count = files;
    return true;
  }

  // findFileEntry's work without the components: kLatOk or kLatNotFound.
  int find(const FileRecord* key, FileRecord* record) const {
    if (readLock(lock) != kRwlOk) return kLatFailed;
    const void* found = findHtElement(table, key->size, key, compareFiles);
    if (found != nullptr) memcpy(record, found, sizeof *record);
    releaseLock(lock);
    return found != nullptr ? kLatOk : kLatNotFound;
  }
};

WholeRecords& wholeRecords() {
  static WholeRecords records;
  return records;
}

// The layout a lookup benchmark reads: the catalog's own, or the whole records beside it.
enum class Layout { kCompact, kWholeRecords };

// Makes the layout hold the first `count` files; false when it could not be built.
bool holdFiles(Layout layout, int64_t count) {
  if (!benchAgent().ok()) return false;
  return layout == Layout::kCompact ? loadLat(count) : wholeRecords().fill(count);
}

int lookUp(Layout layout, const FileRecord* key, FileRecord* record) {
  if (layout == Layout::kCompact) return findFileEntry(key, record, nullptr, nullptr);
  return wholeRecords().find(key, record);
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
void BM_FindFileEntry(benchmark::State& state, Layout layout, bool hit) {
  const int64_t count = state.range(0);
  if (!holdFiles(layout, count)) {
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
    found += lookUp(layout, &key, &record) == kLatOk;
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
void BM_FindFileEntryCold(benchmark::State& state, Layout layout, bool hit) {
  const int64_t count = state.range(0);
  if (!holdFiles(layout, count)) {
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
    found += lookUp(layout, &key, &record) == kLatOk;
    benchmark::DoNotOptimize(record);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
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

// downloadCatalog of the canned answer for the largest catalog from a loopback server thread; with
// `merge`, as the catalog command runs it: the records merged into an empty catalog a batch at a
// time as they are parsed, the last batch once the answer is whole.
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
    CatalogBatches batches{updateCatalog, kCatalogBatchRecords, kLatOk};
    int64_t time = 0;
    returnFreedMemory();
    state.ResumeTiming();
    int result = kServiceFailed;
    if (ready && merge) {
      result = downloadCatalogInBatches(&time, lists->components, lists->files, &batches);
      if (result == kServiceOk && updateCatalog(lists->components, lists->files) != kLatOk) {
        result = kServiceFailed;
      }
    } else if (ready) {
      result = downloadCatalog(&time, lists->components, lists->files);
    }
    state.PauseTiming();
    bool whole = result == kServiceOk && time == kCatalogTime &&
                 (merge ? getCatalogFilesNumber() == largestCatalog() &&
                              getCatalogComponentsNumber() == kComponents
                        : entries(lists->files) == largestCatalog() &&
                              entries(lists->components) == kComponents);
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

// ---- The daemon's memory with a large catalog.dat.

// The agent beside this benchmark program (the build's own), or the one KVDAGENT_BIN names.
std::string ownAgent() {
  const char* given = getenv("KVDAGENT_BIN");
  if (given != nullptr && *given != '\0') return given;
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return "";
  const std::string path(self, static_cast<size_t>(length));
  return path.substr(0, path.rfind('/') + 1) + "kvdagent";
}

// Another build of the agent to measure beside it in the same run (an older one, say), named by
// SLM_BENCH_OTHER_AGENT; "" when none.
std::string otherAgent() {
  const char* other = getenv("SLM_BENCH_OTHER_AGENT");
  return other == nullptr ? "" : other;
}

constexpr char kDaemonServer[] = "127.0.0.1";

// "catalog.dat" of `count` files as a large organisation's catalog holds them: names of 8 to 24
// characters, every size different, one component each but for 1% with 2 to 16.
std::string catalogDat(int64_t count) {
  std::string out(kCatalogRecordsOffset, '\0');
  auto* header = reinterpret_cast<uint8_t*>(out.data());
  putFixed32(header + kCacheMajorOffset, kCatalogCacheVersion.majorNumber);
  putFixed32(header + kCacheMinorOffset, kCatalogCacheVersion.minorNumber);
  putFixed64(header + kCacheTimestampOffset, static_cast<uint64_t>(kCatalogTime));
  putText(header + kCacheServerNameOffset, kCacheServerNameSize, kDaemonServer);
  putFixed32(header + kCatalogComponentCountOffset, static_cast<uint32_t>(kComponents));
  uint8_t record[kFileRecordSize];
  for (int32_t id = 1; id <= kComponents; ++id) {
    encodeComponentRecord(componentRecord(id), record);
    out.append(reinterpret_cast<const char*>(record), kComponentRecordSize);
  }
  constexpr char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.";
  std::mt19937_64 random(20240612);
  out.reserve(out.size() + static_cast<size_t>(count) * kFileRecordSize);
  for (int64_t i = 0; i < count; ++i) {
    FileRecord file{};
    const size_t length = 8 + random() % 17;
    for (size_t c = 0; c < length; ++c) file.name[c] = kNameCharacters[random() % 39];
    file.size = kMinSizeBytes + 7 * i;
    file.componentCount = drawComponentCount(random);
    for (int32_t c = 0; c < file.componentCount; ++c) {
      file.componentIds[c] = 1 + static_cast<int64_t>(random() % kComponents);
    }
    encodeFileRecord(file, record);
    out.append(reinterpret_cast<const char*>(record), kFileRecordSize);
  }
  return out;
}

// The process of `binary` whose environment names `root`, or -1.
pid_t daemonIn(const std::string& root, const std::string& binary) {
  const std::string marker = "KVDAGENT_ROOT=" + root;
  std::error_code error;
  const std::filesystem::path wanted = std::filesystem::canonical(binary, error);
  if (error) return -1;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string pid = entry.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    if (std::filesystem::read_symlink(entry.path() / "exe", error) != wanted || error) continue;
    std::string environment = test::readFile(entry.path() / "environ");
    environment.insert(0, 1, '\0');
    if (environment.find('\0' + marker + '\0') != std::string::npos) return std::stoi(pid);
  }
  return -1;
}

// VmRSS and VmHWM of `pid` in bytes; false when they cannot be read.
bool residentAndPeak(pid_t pid, int64_t* resident, int64_t* peak) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  *resident = *peak = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) *resident = std::atoll(line.c_str() + 6) * 1024;
    if (line.rfind("VmHWM:", 0) == 0) *peak = std::atoll(line.c_str() + 6) * 1024;
  }
  return *resident > 0 && *peak > 0;
}

struct DaemonMemory {
  bool measured = false;
  int64_t residentBytes = 0;
  int64_t peakBytes = 0;
  double startSeconds = 0;  // from the start to the caches built
};

// Starts the daemon `binary` in a fresh root that holds `catalog` as its catalog.dat and no
// server to reach, waits until its caches are built and its threads have settled, reads its memory
// and kills it (a stop would spend seconds storing the catalog again).
DaemonMemory daemonMemory(const std::string& binary, const std::string& catalog) {
  DaemonMemory memory;
  test::TempDir root;
  root.makeDirs("var/qsam/cache");
  root.makeDirs("tmp");
  root.writeFile("etc/kvdagent.ini",
                 "agentid=4711\ndivisionid=42\ntag=bench\ncustomer=bench\nserver=" +
                     std::string(kDaemonServer) + "\nport=9\npath=/slm\ntrace_level=1\n");
  root.writeFile("var/qsam/cache/catalog.dat", catalog);
  std::vector<std::string> variables = {"KVDAGENT_ROOT=" + root.path(), "LANG=C.UTF-8",
                                        "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  std::vector<char*> environment;
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::string program = binary;
  char* argv[] = {program.data(), nullptr};
  const auto begin = std::chrono::steady_clock::now();
  pid_t launcher = -1;
  if (posix_spawn(&launcher, binary.c_str(), nullptr, nullptr, argv, environment.data()) != 0) {
    return memory;
  }
  int status = 0;
  // The program returns once the daemon it forked is on its own.
  if (waitpid(launcher, &status, 0) != launcher || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return memory;
  }
  const std::string trace = root.file("var/qsam/log/traceagt.log");
  bool built = false;
  for (int waited = 0; waited < 6000 && !built; ++waited) {
    built = test::fileExists(trace) &&
            test::readFile(trace).find("OK - Cache created") != std::string::npos;
    if (!built) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  memory.startSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const pid_t daemon = daemonIn(root.path(), binary);
  if (daemon <= 0) return memory;
  memory.measured = built && residentAndPeak(daemon, &memory.residentBytes, &memory.peakBytes);
  kill(daemon, SIGKILL);
  for (int waited = 0; waited < 200 && kill(daemon, 0) == 0; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return memory;
}

// The daemon `binary` with a catalog.dat of range(0) files, beside the same daemon with an empty
// catalog: its resident memory and its peak, the bytes each file costs above the empty daemon,
// and the peak over the resident size. The time is the start's, up to the caches built.
void BM_DaemonCatalogMemory(benchmark::State& state, const std::string& binary) {
  const int64_t count = state.range(0);
  static std::string measuredBinary;
  static DaemonMemory empty;
  if (measuredBinary != binary) {
    empty = daemonMemory(binary, catalogDat(0));
    measuredBinary = binary;
  }
  const std::string catalog = catalogDat(count);
  DaemonMemory loaded;
  for (auto _ : state) {
    loaded = daemonMemory(binary, catalog);
    state.SetIterationTime(loaded.startSeconds);
  }
  if (!empty.measured || !loaded.measured) {
    state.SkipWithError(("the daemon " + binary + " could not be measured").c_str());
    return;
  }
  using benchmark::Counter;
  const double above = static_cast<double>(loaded.residentBytes - empty.residentBytes);
  state.counters["rss"] =
      Counter(double(loaded.residentBytes), Counter::kDefaults, Counter::kIs1024);
  state.counters["peak"] = Counter(double(loaded.peakBytes), Counter::kDefaults, Counter::kIs1024);
  state.counters["rss_empty"] =
      Counter(double(empty.residentBytes), Counter::kDefaults, Counter::kIs1024);
  state.counters["bytes_per_file"] = above / double(count);
  state.counters["peak_over_rss"] = double(loaded.peakBytes) / double(loaded.residentBytes);
}

// Registered here rather than with BENCHMARK so that the sizes follow SLM_BENCH_FULL; lookups come
// by size, both layouts side by side.
const bool registered = [] {
  std::vector<int64_t> sizes = {kSmokeFiles};
  if (fullRun()) sizes.insert(sizes.end(), {100000, kFullFiles});
  const std::pair<Layout, std::string> layouts[] = {{Layout::kCompact, "compact"},
                                                    {Layout::kWholeRecords, "whole_records"}};
  for (int64_t files : sizes) {
    for (bool hit : {true, false}) {
      const std::string suffix = hit ? "/hit" : "/miss";
      for (const auto& [layout, name] : layouts) {
        benchmark::RegisterBenchmark(
            ("catalog_lookup/" + name + suffix).c_str(),
            [layout, hit](benchmark::State& state) { BM_FindFileEntry(state, layout, hit); })
            ->ArgName("files")
            ->Arg(files);
      }
      for (const auto& [layout, name] : layouts) {
        benchmark::RegisterBenchmark(
            ("catalog_lookup/" + name + "/cold" + suffix).c_str(),
            [layout, hit](benchmark::State& state) { BM_FindFileEntryCold(state, layout, hit); })
            ->ArgName("files")
            ->Arg(files)
            ->Iterations(fullRun() ? 500 : 3)
            ->UseManualTime()
            ->Unit(benchmark::kNanosecond);
      }
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
  // The daemon's memory, and beside it another build's when one is named.
  std::vector<std::pair<std::string, std::string>> agents = {{"daemon", ownAgent()}};
  if (!otherAgent().empty()) agents.emplace_back("daemon:other", otherAgent());
  for (int64_t count : sizes) {
    for (const auto& [name, binary] : agents) {
      benchmark::RegisterBenchmark(
          ("catalog_memory/" + name).c_str(),
          [binary](benchmark::State& state) { BM_DaemonCatalogMemory(state, binary); })
          ->ArgName("files")
          ->Arg(count)
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  return true;
}();

}  // namespace
}  // namespace slm
