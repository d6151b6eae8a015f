// Scanner benchmarks: the inventory walk over a generated tree of directories, plain files,
// executables (and look-alikes) and symbolic links, next to `find ROOT -type f -perm /111` on the
// same tree in the same run, both on a warm cache and timed by the wall clock; the scanner as on
// the agent's first scan, with what the scan before learnt, and with what it stored before a
// restart. The tree has 100,000 entries with SLM_BENCH_FULL=1; without it a tree of 2,000 keeps
// the benchmarks running.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
  kRepeat,        // those of the walk before, in memory (every later scan of one run)
  kAfterRestart,  // those the walk before stored (the first scan after a restart)
};

void BM_Scanner(benchmark::State& state, FileSystemCheck check, Start start) {
  setAgentRoot(tree().dir.path().c_str());
  int64_t found = scanOnce(check);  // warms the cache
  for (auto _ : state) {
    if (start != Start::kRepeat) {
      state.PauseTiming();
      forgetKnownFiles(start == Start::kFirst ? Forget::kMemoryAndFile : Forget::kMemory);
      state.ResumeTiming();
    }
    found = scanOnce(check);
    benchmark::DoNotOptimize(found);
  }
  setAgentRoot("");
  if (found != tree().executables) state.SkipWithError("the scan missed executables");
  state.counters["entries"] = tree().entries;
  state.counters["records"] = static_cast<double>(found);
  state.SetItemsProcessed(state.iterations() * tree().entries);
}

// The same question asked of find, its output thrown away.
void BM_Find(benchmark::State& state) {
  const std::string root = tree().dir.path();
  const char* argv[] = {"find", root.c_str(), "-type", "f", "-perm", "/111", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  auto run = [&] {
    pid_t pid = -1;
    int status = -1;
    if (posix_spawnp(&pid, "find", &actions, nullptr, const_cast<char**>(argv), environ) == 0) {
      waitpid(pid, &status, 0);
    }
    return status;
  };
  run();  // warms the cache
  for (auto _ : state) {
    if (run() != 0) state.SkipWithError("find failed");
  }
  posix_spawn_file_actions_destroy(&actions);
  state.counters["entries"] = tree().entries;
  state.SetItemsProcessed(state.iterations() * tree().entries);
}

const bool registered = [] {
  const std::string entries =
      "/entries:" + std::to_string(fullRun() ? kFullEntries : kSmokeEntries);
  auto timed = [](benchmark::internal::Benchmark* entry) {
    entry->UseRealTime()->Unit(benchmark::kMillisecond);
    if (fullRun()) entry->Repetitions(5)->DisplayAggregatesOnly(true);
  };
  auto scanner = [&](const std::string& name, FileSystemCheck check, Start start) {
    timed(benchmark::RegisterBenchmark(
        ("scanner/" + name + entries).c_str(),
        [check, start](benchmark::State& state) { BM_Scanner(state, check, start); }));
  };
  scanner("once_per_device/first_walk", FileSystemCheck::kOncePerDevice, Start::kFirst);
  scanner("once_per_device/after_restart", FileSystemCheck::kOncePerDevice, Start::kAfterRestart);
  scanner("once_per_device", FileSystemCheck::kOncePerDevice, Start::kRepeat);
  scanner("every_path/first_walk", FileSystemCheck::kEveryPath, Start::kFirst);
  timed(benchmark::RegisterBenchmark(("find_perm_111" + entries).c_str(), BM_Find));
  return true;
}();

}  // namespace
}  // namespace slm
