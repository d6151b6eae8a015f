// The process event monitor's work per event: read, file status, catalog lookup and
// acknowledgement, through a device that hands out events as fast as the monitor takes them, with
// catalogs of 10k, 100k and 1M files; beside it the same loop on fork events, which are
// acknowledged without a status or a lookup. Each benchmark runs the real monitor loop on its own
// thread over a batch of events and reports the 50th and 99th percentile of the time between one
// read and the next. The larger catalogs run only with SLM_BENCH_FULL=1, and so do real program
// starts watched through the built-in exec monitor, which give the latency a start gains for each
// of the reader's pauses, and the monitor's CPU time per start.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/uat.h"
#include "agent_core/cmdsthr.h"
#include "agent_core/monitor.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/slm_thread.h"
#include "agent_core/support/unix_common.h"
#include "kernel/linux/agent/exec_monitor.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/threads.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEventsPerBatch = 20000;
constexpr int kProgramsOnDisk = 16;

bool fullRun() {
  const char* full = getenv("SLM_BENCH_FULL");
  return full != nullptr && strcmp(full, "1") == 0;
}

// A device with a fixed round of events: every read returns the next one and notes the time, the
// read after the batch fails and so ends the monitor.
struct BenchDevice {
  std::vector<std::string> events;
  std::vector<Clock::time_point> readTimes;
  size_t next = 0;
};
BenchDevice device;

int benchOpen(const char*, int) {
  return 42;
}
int benchIoctl(int, unsigned long) {
  return 0;
}
ssize_t benchRead(int, void* buffer, size_t size) {
  device.readTimes.push_back(Clock::now());
  if (device.next >= static_cast<size_t>(kEventsPerBatch)) {
    errno = EIO;
    return -1;
  }
  const std::string& event = device.events[device.next++ % device.events.size()];
  memcpy(buffer, event.data(), std::min(size, event.size()));
  return static_cast<ssize_t>(event.size());
}
ssize_t benchWrite(int, const void*, size_t size) {
  return static_cast<ssize_t>(size);
}
int benchClose(int) {
  return 0;
}
const DeviceCalls kBenchCalls{benchOpen, benchIoctl, benchRead, benchWrite, benchClose};

// The agent state the monitor needs, in a temporary root holding a few programs; the catalog knows
// half of them beside `files` synthetic entries.
class MonitorWorld {
 public:
  explicit MonitorWorld(int64_t files) {
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    root_.makeDirs("usr/bin");
    root_.writeFile("etc/kvdagent.ini", "agentid=1\ndivisionid=2\ntag=t\ncustomer=c\n");
    deleteConfigurationVariables();  // whatever an earlier benchmark left loaded
    if (loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()) != kConfigurationLoaded ||
        initAgentInfo() != kAgentValueOk || createComponentsCache() != kLatOk ||
        createUATCache() != kUatOk || slmAgentInitCommands() != kQueueOk) {
      fprintf(stderr, "monitor benchmark: the agent state could not be built\n");
      abort();
    }
    (void)setAgentIntValue(kAgentDriverStatus, 0);
    SlmList* list = createList(sizeof(FileRecord));
    SlmList* components = createList(sizeof(ComponentRecord));
    for (int i = 0; i < kProgramsOnDisk; ++i) {
      std::string name = "program" + std::to_string(i);
      root_.writeFile("usr/bin/" + name, std::string(1000 + 37 * i, 'x'));
      paths_.push_back("/usr/bin/" + name);
      if (i % 2 == 1) continue;
      FileRecord record{};
      name.copy(record.name, sizeof record.name - 1);
      record.size = 1000 + 37 * i;
      (void)append(list, &record);
    }
    for (int64_t i = 0; i < files; ++i) {
      FileRecord record{};
      snprintf(record.name, sizeof record.name, "catalog%07lld.bin", static_cast<long long>(i));
      record.size = 1024 + (i * 7919) % (50 * 1024 * 1024);
      (void)append(list, &record);
      if (entries(list) == 100000) {
        (void)updateCatalog(components, list);
        deleteList(list);
        list = createList(sizeof(FileRecord));
      }
    }
    (void)updateCatalog(components, list);
    deleteList(list);
    deleteList(components);
  }
  ~MonitorWorld() {
    slmAgentCleanCommands();
    remove(root_.file("var/qsam/cache/catalog.dat").c_str());
    deleteUATCache();
    deleteComponentsCache();
    clearAgentInfo();
    deleteConfigurationVariables();
    setAgentRoot("");
  }
  const std::vector<std::string>& paths() const { return paths_; }
  std::string real(const std::string& path) const { return root_.file(path.substr(1)); }

 private:
  test::TempDir root_;
  std::vector<std::string> paths_;
};

std::string encoded(const DriverEvent& event) {
  uint8_t bytes[kEventRecordSize];
  encodeDriverEvent(event, bytes);
  return std::string(reinterpret_cast<char*>(bytes), sizeof bytes);
}

// Runs the monitor over one batch of the world's programs started (or forked) and reports the
// percentiles of the per-event times.
void BM_MonitorEvent(benchmark::State& state, bool lookups) {
  MonitorWorld world(state.range(0));
  device = BenchDevice{};
  for (size_t i = 0; i < world.paths().size(); ++i) {
    DriverEvent event;
    event.kind = kEventStart;
    event.forkFlag = lookups ? 0 : 1;
    world.paths()[i].copy(event.path, kEventPathSize - 1);
    device.events.push_back(encoded(event));
  }
  setDeviceCalls(&kBenchCalls);
  (void)setSlmDeviceFileName("/var/qsam/kvdkagent");
  std::vector<double> micros;
  for (auto _ : state) {
    device.next = 0;
    device.readTimes.clear();
    device.readTimes.reserve(kEventsPerBatch + 2);
    benchmark::DoNotOptimize(slmAgentMonitorFunction());
    (void)setAgentIntValue(kAgentDriverStatus, 0);
    for (size_t i = 1; i + 1 < device.readTimes.size(); ++i) {
      micros.push_back(
          std::chrono::duration<double, std::micro>(device.readTimes[i] - device.readTimes[i - 1])
              .count());
    }
  }
  setDeviceCalls(nullptr);
  cleanSlmDeviceFileName();
  std::sort(micros.begin(), micros.end());
  auto percentile = [&](double p) {
    return micros.empty() ? 0.0 : micros[static_cast<size_t>(p * (micros.size() - 1))];
  };
  state.counters["p50_us"] = percentile(0.50);
  state.counters["p99_us"] = percentile(0.99);
  state.SetItemsProcessed(static_cast<int64_t>(micros.size()));
}

constexpr int kExecs = 4000;
constexpr int kPausesMillis[] = {0, 20, 50, 100, 200};

// The time of one start of `program` until it has ended, in microseconds.
double startTime(const std::string& program) {
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  Clock::time_point begin = Clock::now();
  pid_t child = -1;
  int status = 0;
  if (posix_spawn(&child, program.c_str(), nullptr, nullptr, argv, nullptr) == 0) {
    waitpid(child, &status, 0);
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

// Per-start times of `kExecs` starts of `program`, in microseconds.
std::vector<double> startTimes(const std::string& program) {
  std::vector<double> micros;
  for (int i = 0; i < kExecs; ++i) micros.push_back(startTime(program));
  return micros;
}

double at(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(p * (values.size() - 1))];
}

// CPU time of the process's threads other than the calling one, in microseconds: the monitor's,
// as the starts themselves run in children.
double otherThreadsCpuMicros() {
  struct rusage self, thread;
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_THREAD, &thread);
  auto micros = [](const struct timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; };
  return micros(self.ru_utime) + micros(self.ru_stime) - micros(thread.ru_utime) -
         micros(thread.ru_stime);
}

// Starts of a catalogued program in the sandbox watched by the agent's monitor thread on the
// built-in exec monitor, beside starts of two identical copies outside the sandbox, which nothing
// watches, for each of the reader's pauses in turn. The three take turns start by start, in an
// order that rotates, so that whatever drifts on the machine while the benchmark runs weighs on all
// alike. The counters, all in microseconds, those after the first two for each pause P:
//   none_p50/p99           the sandbox's program started before the monitor runs at all
//   P_unwatched_p50/p99    the first copy outside the sandbox, started while the monitor runs
//   P_watched_p50/p99      the sandbox's program, started while the monitor runs
//   P_added_p50/p99        watched minus unwatched, percentile by percentile
//   P_noise_p50/p99        the second unwatched copy minus the first: what the machine's own
//                          noise makes of a difference where there is none
//   P_cpu_per_start        the monitor's CPU time (reader and monitor thread) per watched start
// and P_reads, the reads of the kernel's queue for the whole run, and P_lost, the starts lost.
void BM_WatchedStart(benchmark::State& state) {
  if (!execMonitorSupported()) {
    state.SkipWithError("exec notifications are not available (root and fanotify needed)");
    return;
  }
  MonitorWorld world(state.range(0));
  const std::string program = world.real(world.paths()[0]);
  std::filesystem::copy_file("/bin/true", program,
                             std::filesystem::copy_options::overwrite_existing);
  chmod(program.c_str(), 0755);
  // The same program at the same depth, outside the agent root and so never marked.
  test::TempDir outside;
  outside.makeDirs("usr/bin");
  const std::string copy = outside.file("usr/bin/program0");
  std::filesystem::copy_file(program, copy);
  chmod(copy.c_str(), 0755);
  test::TempDir elsewhere;
  elsewhere.makeDirs("usr/bin");
  const std::string control = elsewhere.file("usr/bin/program0");
  std::filesystem::copy_file(program, control);
  chmod(control.c_str(), 0755);
  // The catalog knows the program by its new size.
  FileRecord known{};
  strcpy(known.name, "program0");
  known.size = static_cast<int64_t>(std::filesystem::file_size(program));
  SlmList* files = createList(sizeof(FileRecord));
  SlmList* components = createList(sizeof(ComponentRecord));
  (void)append(files, &known);
  (void)updateCatalog(components, files);
  deleteList(files);
  deleteList(components);

  for (auto _ : state) {
    std::vector<double> none = startTimes(program);
    state.counters["none_p50_us"] = at(none, 0.50);
    state.counters["none_p99_us"] = at(none, 0.99);
    for (int pause : kPausesMillis) {
      setExecBatchPauseMillis(pause);
      setDeviceCalls(&builtinExecMonitorCalls());
      (void)setSlmDeviceFileName("built-in");
      (void)setAgentIntValue(kAgentDriverStatus, 0);
      mon_thread = createSlmThread(slmAgentInitMonitor, slmAgentMonitorFunction,
                                   slmAgentStopMonitor, slmAgentCleanMonitor);
      if (mon_thread == nullptr || startSlmThread(mon_thread) != kSlmThreadOk) {
        state.SkipWithError("the monitor thread did not start");
        return;
      }
      // Starts until the monitor has its marks, each given a second to be delivered, so that
      // none is still on its way when the counting begins.
      const uint64_t initial = execMonitorCounts().delivered;
      for (bool delivered = false; !delivered;) {
        (void)startTime(program);
        const Clock::time_point bound = Clock::now() + std::chrono::seconds(1);
        while (!(delivered = execMonitorCounts().delivered != initial) && Clock::now() < bound) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
      const ExecMonitorCounts before = execMonitorCounts();
      const double cpuBefore = otherThreadsCpuMicros();
      const std::string* programs[] = {&program, &copy, &control};
      std::vector<double> times[3];
      for (int i = 0; i < kExecs; ++i) {
        // The one that goes first changes every round: the later starts of a round may find the
        // machine warmer.
        for (int turn = 0; turn < 3; ++turn) {
          const int which = (i + turn) % 3;
          times[which].push_back(startTime(*programs[which]));
        }
      }
      const std::vector<double>& watched = times[0];
      const std::vector<double>& unwatched = times[1];
      const std::vector<double>& unwatchedAgain = times[2];
      // The monitor is done once it has read every start.
      while (execMonitorCounts().delivered - before.delivered +
                 (execEventsLost(execMonitorCounts()) - execEventsLost(before)) <
             static_cast<uint64_t>(kExecs)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      const double cpu = otherThreadsCpuMicros() - cpuBefore;
      const ExecMonitorCounts after = execMonitorCounts();
      stopSlmThread(mon_thread);
      cleanSlmThread(mon_thread);
      mon_thread = nullptr;
      setDeviceCalls(nullptr);
      cleanSlmDeviceFileName();
      if (after.seen - before.seen + execEventsLost(after) - execEventsLost(before) !=
          static_cast<uint64_t>(kExecs)) {
        state.SkipWithError("the monitor saw other starts than the watched program's");
        return;
      }
      const std::string p = std::to_string(pause) + "ms_";
      state.counters[p + "unwatched_p50_us"] = at(unwatched, 0.50);
      state.counters[p + "unwatched_p99_us"] = at(unwatched, 0.99);
      state.counters[p + "watched_p50_us"] = at(watched, 0.50);
      state.counters[p + "watched_p99_us"] = at(watched, 0.99);
      state.counters[p + "added_p50_us"] = at(watched, 0.50) - at(unwatched, 0.50);
      state.counters[p + "added_p99_us"] = at(watched, 0.99) - at(unwatched, 0.99);
      state.counters[p + "noise_p50_us"] = at(unwatchedAgain, 0.50) - at(unwatched, 0.50);
      state.counters[p + "noise_p99_us"] = at(unwatchedAgain, 0.99) - at(unwatched, 0.99);
      state.counters[p + "cpu_per_start_us"] = cpu / kExecs;
      state.counters[p + "reads"] = static_cast<double>(after.reads - before.reads);
      state.counters[p + "lost"] =
          static_cast<double>(execEventsLost(after) - execEventsLost(before));
    }
    setExecBatchPauseMillis(-1);
  }
}

const bool registered = [] {
  std::vector<int64_t> sizes = {10000};
  if (fullRun()) sizes.insert(sizes.end(), {100000, 1000000});
  for (int64_t files : sizes) {
    benchmark::RegisterBenchmark("monitor_event/start_with_lookup",
                                 [](benchmark::State& state) { BM_MonitorEvent(state, true); })
        ->ArgName("files")
        ->Arg(files)
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("monitor_event/fork_no_lookup",
                                 [](benchmark::State& state) { BM_MonitorEvent(state, false); })
        ->ArgName("files")
        ->Arg(files)
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
  }
  // Thousands of real program starts: the full run only.
  if (fullRun()) {
    benchmark::RegisterBenchmark("monitor_exec/start", BM_WatchedStart)
        ->ArgName("files")
        ->Arg(1000000)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  return true;
}();

}  // namespace
}  // namespace slm
