// Scanner benchmark: the inventory walk next to `find ROOT -type f -perm /111` on the same tree,
// alternating with it in one run, on a warm cache and timed by the wall clock; the scanner as at
// the agent's very first scan, at the first scan after a restart, and at every later scan. Two
// trees: a generated one of directories, plain files, executables (and look-alikes) and symbolic
// links, where one entry in five has an execute bit and must be read; and this machine's own /usr,
// as installed, where such files are far fewer. With SLM_BENCH_FULL=1 the generated tree has
// 100,000 entries and the system tree is all of /usr; without it, 2,000 entries and /usr/bin keep
// the benchmark running.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "agent_core/data/inventory_record.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/unix_common.h"
#include "inventory/linux/searcher.h"
#include "support/temp_root.h"

extern char** environ;

namespace slm {
namespace {

constexpr int kSmokeEntries = 2000;
constexpr int kFullEntries = 100000;
constexpr int kEntriesPerDirectory = 40;
constexpr long kMaxDepth = 8;

bool fullRun() {
  const char* full = getenv("SLM_BENCH_FULL");
  return full != nullptr && strcmp(full, "1") == 0;
}

// A minimal 64-bit ELF file of `type` for x86-64, with a program interpreter entry when asked.
std::string elfFile(int type, bool interpreter) {
  std::string out(64 + 2 * 56 + 64, '\0');
  const char ident[] = {0x7F, 'E', 'L', 'F', 2, 1, 1};
  out.replace(0, sizeof ident, ident, sizeof ident);
  out[16] = static_cast<char>(type);
  out[18] = 62;
  out[32] = 64;  // program headers right behind the header
  out[54] = 56;
  out[56] = 2;
  out[64] = 6;
  out[64 + 56] = interpreter ? 3 : 1;
  return out;
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), mode);
}

// The tree: per 100 entries about 5 directories, 60 plain files, 20 executable-looking files (ELF
// executables, position-independent executables, shared libraries, scripts) and 15 links.
struct Tree {
  test::TempDir dir;
  int entries = 0;
  int executables = 0;

  explicit Tree(int count) {
    std::mt19937 random(42);
    dir.makeDirs("var/qsam/cache");  // where the walks store what they learn
    const std::string exec = elfFile(2, false), pie = elfFile(3, true), lib = elfFile(3, false);
    std::string current = dir.path() + "/d0";
    std::vector<std::string> directories{current};
    mkdir(current.c_str(), 0755);
    ++entries;
    int inDirectory = 0;
    for (int n = 1; entries < count; ++n) {
      if (inDirectory == kEntriesPerDirectory) {
        // A new directory below one of the shallower existing ones: a bushy tree some levels deep.
        std::string parent;
        do {
          parent = directories[random() % directories.size()];
        } while (std::count(parent.begin() + dir.path().size(), parent.end(), '/') >= kMaxDepth);
        current = parent + "/d" + std::to_string(n);
        directories.push_back(current);
        mkdir(current.c_str(), 0755);
        ++entries;
        inDirectory = 0;
        continue;
      }
      const std::string path = current + "/f" + std::to_string(n);
      const unsigned kind = random() % 95;
      if (kind < 60) {
        writeFile(path, "plain data " + std::to_string(n), 0644);
      } else if (kind < 80) {
        switch (kind % 4) {
          case 0:
            writeFile(path, exec, 0755);
            ++executables;
            break;
          case 1:
            writeFile(path, pie, 0755);
            ++executables;
            break;
          case 2:
            writeFile(path, lib, 0755);
            break;
          default:
            writeFile(path, "#!/bin/sh\nexit 0\n", 0755);
            break;
        }
      } else {
        symlink("../f1", path.c_str());
      }
      ++entries;
      ++inDirectory;
    }
  }
};

// The tree, once its files are old enough for a walk to keep what it learns of them: a file changed
// within two seconds of the walk is read again by the next one.
Tree& tree() {
  static Tree instance(fullRun() ? kFullEntries : kSmokeEntries);
  static const bool settled = [] {
    sleep(3);
    return true;
  }();
  (void)settled;
  return instance;
}

int64_t scanOnce(FileSystemCheck check) {
  SlmList* list = createList(sizeof(InventoryRecord));
  char path[kSearchPathSize] = "/";
  if (analyzePath(list, path, check) != kSearchOk) return -1;
  const int64_t found = entries(list);
  deleteList(list);
  return found;
}

// Which answers a timed walk starts with.
enum class Start {
  kFirst,         // none: it reads every candidate, as the agent's very first scan does
  kAfterRestart,  // those the walk before stored (the first scan after a restart)
  kRepeat,        // those of the walk before, in memory (every later scan of one run)
};

// A tree the scanner and find walk: the agent root is set to it and the scanner walks "/" below.
struct Subject {
  std::string root;
  bool canStore;  // whether the root holds the cache directory a walk stores what it learnt in
};

double millisecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
      .count();
}

// The wall time of one walk; `found` gets its count of records.
double timedScan(const Subject& subject, FileSystemCheck check, Start start, int64_t* found) {
  if (start != Start::kRepeat) {
    // Below a root without the cache directory there is no file to remove, nor one to be removed.
    forgetKnownFiles(start == Start::kFirst && subject.canStore ? Forget::kMemoryAndFile
                                                                : Forget::kMemory);
  }
  const auto begin = std::chrono::steady_clock::now();
  *found = scanOnce(check);
  return millisecondsSince(begin);
}

// The wall time of `find ROOT -type f -perm /111`, its output thrown away; negative when it failed.
double timedFind(const Subject& subject) {
  const char* argv[] = {"find", subject.root.c_str(), "-type", "f", "-perm", "/111", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const auto begin = std::chrono::steady_clock::now();
  pid_t pid = -1;
  int status = -1;
  if (posix_spawnp(&pid, "find", &actions, nullptr, const_cast<char**>(argv), environ) == 0) {
    waitpid(pid, &status, 0);
  }
  const double took = millisecondsSince(begin);
  posix_spawn_file_actions_destroy(&actions);
  return status == 0 ? took : -1;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The scanner beside find on one warm tree, in rounds: each round runs find and the scanner in its
// three cases (and, as the reference, walking with a statfs of every path), in an order turned by
// one place every round, so that a machine whose speed drifts slows both sides alike. Every walk
// must find the records the first one found (for the generated tree: its executables). Reports the
// median wall time of each (NAME_ms) and the median of each round's time against that round's
// find (NAME_x).
void BM_ScannerBesideFind(benchmark::State& state, const Subject& subject, int64_t executables) {
  struct Run {
    const char* name;
    FileSystemCheck check;
    Start start;
  };
  std::vector<Run> runs{{"find", FileSystemCheck::kOncePerDevice, Start::kFirst},
                        {"first_walk", FileSystemCheck::kOncePerDevice, Start::kFirst},
                        {"after_restart", FileSystemCheck::kOncePerDevice, Start::kAfterRestart},
                        {"repeat_walk", FileSystemCheck::kOncePerDevice, Start::kRepeat},
                        {"every_path_first_walk", FileSystemCheck::kEveryPath, Start::kFirst}};
  if (!subject.canStore) runs.erase(runs.begin() + 2);  // nothing stored, nothing to restart with
  const size_t count = runs.size();
  const int rounds = fullRun() ? 11 : 2;
  setAgentRoot(subject.root.c_str());
  int64_t found = 0;
  timedScan(subject, FileSystemCheck::kOncePerDevice, Start::kFirst, &found);  // warms the cache
  if (executables < 0) executables = found;
  timedFind(subject);
  std::vector<std::vector<double>> times(count), ratios(count);
  for (auto _ : state) {
    for (int round = 0; round < rounds; ++round) {
      std::vector<double> took(count);
      for (size_t k = 0; k < count; ++k) {
        const size_t i = (static_cast<size_t>(round) + k) % count;
        took[i] =
            i == 0 ? timedFind(subject) : timedScan(subject, runs[i].check, runs[i].start, &found);
        if (took[i] < 0) state.SkipWithError("find failed");
        if (i != 0 && found != executables) state.SkipWithError("a walk missed executables");
      }
      for (size_t i = 0; i < count; ++i) {
        times[i].push_back(took[i]);
        ratios[i].push_back(took[i] / took[0]);
      }
    }
  }
  setAgentRoot("");
  for (size_t i = 0; i < count; ++i) {
    state.counters[std::string(runs[i].name) + "_ms"] = median(times[i]);
    if (i != 0) state.counters[std::string(runs[i].name) + "_x"] = median(ratios[i]);
  }
  state.counters["records"] = static_cast<double>(found);
}

void BM_GeneratedTree(benchmark::State& state) {
  BM_ScannerBesideFind(state, {tree().dir.path(), true}, tree().executables);
  state.counters["entries"] = tree().entries;
}

// This machine's own programs as installed. Nothing is written below them: the walks keep what
// they learn in memory only.
void BM_SystemTree(benchmark::State& state, const std::string& root) {
  struct statfs info;
  if (statfs(root.c_str(), &info) != 0 || !isWalkedFileSystem(static_cast<uint32_t>(info.f_type))) {
    state.SkipWithError("the system tree is not on a file system the scanner walks");
    return;
  }
  if (access((root + "/var").c_str(), F_OK) == 0) {
    state.SkipWithError("the system tree holds a var directory a walk could store in");
    return;
  }
  BM_ScannerBesideFind(state, {root, false}, -1);
}

const bool registered = [] {
  const std::string entries =
      "/entries:" + std::to_string(fullRun() ? kFullEntries : kSmokeEntries);
  const std::string system = fullRun() ? "/usr" : "/usr/bin";
  benchmark::RegisterBenchmark(("scanner_beside_find" + entries).c_str(), BM_GeneratedTree)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("scanner_beside_find/system_tree:" + system).c_str(), BM_SystemTree,
                               system)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
}  // namespace slm
