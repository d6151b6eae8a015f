#include "inventory/linux/searcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/auto_fs.h>
#include <linux/fuse.h>
#include <poll.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent_core/data/inventory_record.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/message/nls.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/agent_sandbox.h"
#include "support/wait_until.h"

namespace slm {
namespace {

using test::bytes;

// A hand-made ELF file: the header of `elfClass` with `type` and `machine`, and a program header
// table of two entries whose second is a program interpreter when `interpreter` is set.
std::string elf(int elfClass, int type, int machine, bool interpreter = false) {
  const bool is32 = elfClass == 1;
  const size_t headerSize = is32 ? 52 : 64;
  const size_t entrySize = is32 ? 32 : 56;
  std::string out(headerSize + 2 * entrySize, '\0');
  out.replace(0, 5, bytes({0x7F, 'E', 'L', 'F', elfClass}));
  out[5] = 1;
  out.replace(16, 4, bytes({type, 0, machine, 0}));
  if (is32) {
    out.replace(28, 4, test::le32(static_cast<uint32_t>(headerSize)));
    out.replace(42, 4, bytes({static_cast<int>(entrySize), 0, 2, 0}));
  } else {
    out.replace(32, 8, test::le64(headerSize));
    out.replace(54, 4, bytes({static_cast<int>(entrySize), 0, 2, 0}));
  }
  out.replace(headerSize, 4, test::le32(6));  // PT_PHDR
  out.replace(headerSize + entrySize, 4, test::le32(interpreter ? 3 : 1));
  return out;
}

// The same with 400 bytes between the header and the program header table, beyond the first read.
std::string farTableElf(bool interpreter) {
  std::string out = elf(2, 3, 62, interpreter);
  out.insert(64, std::string(400, '\0'));
  out.replace(32, 8, test::le64(64 + 400));
  return out;
}

// While it lives, the process may open only a few descriptors more than it has open; a walk then
// keeps half of the limit's directories open.
class FewDescriptors {
 public:
  FewDescriptors() {
    int open = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      (void)entry;
      ++open;
    }
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    const struct rlimit few = {static_cast<rlim_t>(2 * open + 16), saved_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  struct rlimit saved_;
};

// A scratch root on a walked file system, or none (the tests then skip).
class ScanRoot : public ::testing::Test {
 protected:
  void SetUp() override {
    struct statfs info;
    if (statfs(root_.path().c_str(), &info) != 0 ||
        !isWalkedFileSystem(static_cast<uint32_t>(info.f_type))) {
      GTEST_SKIP() << root_.path() << " is not on a walked disk file system (type 0x" << std::hex
                   << info.f_type << "); set TMPDIR to a directory on ext4, XFS or btrfs";
    }
    setAgentRoot(root_.path().c_str());
  }
  void TearDown() override { setAgentRoot(""); }

  void write(const std::string& relative, const std::string& content, mode_t mode = 0755) {
    root_.writeFile(relative, content);
    ASSERT_EQ(chmod(root_.file(relative).c_str(), mode), 0);
  }
  void link(const std::string& target, const std::string& relative) {
    ASSERT_EQ(symlink(target.c_str(), root_.file(relative).c_str()), 0);
  }

  // The records of a walk from the root, in walk order.
  std::vector<InventoryRecord> scan(FileSystemCheck check = FileSystemCheck::kOncePerDevice,
                                    int* result = nullptr) {
    SlmList* list = createList(sizeof(InventoryRecord));
    char path[kSearchPathSize] = "/";
    int walked = analyzePath(list, path, check);
    if (result != nullptr) *result = walked;
    EXPECT_STREQ(path, "/");
    std::vector<InventoryRecord> records;
    for (void* item = getNext(list, nullptr); item != nullptr; item = getNext(list, item)) {
      records.push_back(*static_cast<InventoryRecord*>(item));
    }
    deleteList(list);
    return records;
  }
  std::set<std::string> scannedNames() {
    std::set<std::string> names;
    for (const InventoryRecord& record : scan()) names.insert(record.name);
    return names;
  }
  // Walks while watching `requests`, where whatever the walk asks of a mount shows; when something
  // shows, `release` lets the waiting walk go on. Whether it asked; `names` gets the records'
  // names.
  bool walkAsks(int requests, const std::function<void()>& release, std::set<std::string>* names) {
    std::atomic<bool> walked{false};
    std::thread walk([&] {
      *names = scannedNames();
      walked = true;
    });
    pollfd request{requests, POLLIN, 0};
    bool asked = false;
    while (!walked && !asked) asked = poll(&request, 1, 20) > 0;
    if (asked) release();
    walk.join();
    return asked;
  }

  test::TempDir root_;
};

TEST_F(ScanRoot, RecordsExactlyTheExecutablesOfSupportedProcessors) {
  struct Case {
    const char* name;
    std::string content;
    mode_t mode;
    bool recorded;
  };
  const Case cases[] = {
      {"x86", elf(1, 2, 3), 0755, true},
      {"x86-pie", elf(1, 3, 3, true), 0755, true},
      {"x86-lib", elf(1, 3, 3), 0755, false},
      {"x86-rel", elf(1, 1, 3), 0755, false},
      {"x86-core", elf(1, 4, 3), 0755, false},
      {"x86-for-x64", elf(1, 2, 62), 0755, false},  // class and machine disagree
      {"x86-for-ia64", elf(1, 2, 50), 0755, false},
      {"x64", elf(2, 2, 62), 0700, true},
      {"x64-pie", elf(2, 3, 62, true), 0010, true},
      {"x64-lib", elf(2, 3, 62), 0755, false},
      {"x64-rel", elf(2, 1, 62), 0755, false},
      {"ia64", elf(2, 2, 50), 0001, true},
      {"ia64-pie", elf(2, 3, 50, true), 0755, true},
      {"x64-for-x86", elf(2, 2, 3), 0755, false},
      {"x64-pie-for-x86", elf(2, 3, 3, true), 0755, false},
      {"arm64", elf(2, 2, 183), 0755, false},
      {"arm64-pie", elf(2, 3, 183, true), 0755, false},
      {"odd-class", elf(7, 2, 62), 0755, true},  // any class but 1 reads as 64-bit
      {"no-exec-bits", elf(2, 2, 62), 0644, false},
      {"short", elf(2, 2, 62).substr(0, 19), 0755, false},
      {"twenty", elf(2, 2, 62).substr(0, 20), 0755, true},
      {"far-table-pie", farTableElf(true), 0755, true},
      {"far-table-lib", farTableElf(false), 0755, false},
      {"pie-cut-table", elf(2, 3, 62, true).substr(0, 64 + 56 + 2), 0755, false},
      {"script", "#!/bin/sh\necho hello, world\n", 0755, false},
      {"empty", "", 0755, false},
  };
  std::set<std::string> expected;
  for (const Case& c : cases) {
    write("opt/bin/" + std::string(c.name), c.content, c.mode);
    if (c.recorded) expected.insert(c.name);
  }
  EXPECT_EQ(scannedNames(), expected);
}

TEST_F(ScanRoot, FollowsNoLinksAndSkipsTopLevelProcAndXfnOnly) {
  write("usr/bin/tool", elf(2, 2, 62));
  link(root_.file("usr/bin/tool"), "usr/bin/tool-link");
  link(root_.file("usr"), "usr-link");  // a link to a directory is not entered
  link("usr-link", "loop");
  write("home/x/proc/inproc", elf(2, 2, 62));
  write("home/x/xfn/inxfn", elf(2, 2, 62));
  write("proc/fake", elf(2, 2, 62));
  write("processes/quirk", elf(2, 2, 62));  // "//proc" is matched as a prefix
  write("xfn/named", elf(2, 2, 62));
  write("var/qsam/caf\xe9", elf(2, 2, 62));
  write("var/qsam/odd\r\n  OK - Agent stopped\x1b", elf(2, 2, 62));  // control bytes: "?"
  EXPECT_EQ(scannedNames(), (std::set<std::string>{"tool", "inproc", "inxfn", "caf\xc3\xa9",
                                                   "odd??  OK - Agent stopped?"}));
  // Under UTF-8 the same byte is no character: it stands as "?", the rest of the name is kept.
  write("var/qsam/na\xc3\xafve", elf(2, 2, 62));
  CodeSet* builtin = getDefaultCodeSet();
  CodeSet* utf8 = createCodeSet("UTF-8");
  ASSERT_NE(utf8, nullptr);
  setDefaultCodeSet(utf8);
  std::set<std::string> names = scannedNames();
  setDefaultCodeSet(builtin);
  freeCodeSet(utf8);
  EXPECT_EQ(names.count("caf?"), 1u);
  EXPECT_EQ(names.count("na\xc3\xafve"), 1u);
  EXPECT_EQ(names.count(""), 0u);
}

TEST_F(ScanRoot, FillsTheRecordAsTheInventoryTransferExpects) {
  const std::string content = elf(2, 2, 62) + std::string(1000, 'x');
  write("bin/app", content);
  std::vector<InventoryRecord> records = scan();
  ASSERT_EQ(records.size(), 1u);
  uint8_t raw[kInventoryRecordSize];
  encodeInventoryRecord(records[0], raw);
  std::string expected = test::field("app", 256) + test::le64(content.size()) +
                         std::string(12, '\0') + test::field(" ", 401) + test::field(" ", 80) +
                         test::field(" ", 40) + test::field(" ", 80) + test::field(" ", 83);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(raw), sizeof raw), expected);
}

// Creates `name` below the directory `parent` and returns its descriptor.
int makeDirectoryAt(int parent, const std::string& name) {
  EXPECT_EQ(mkdirat(parent, name.c_str(), 0755), 0) << name;
  return openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY);
}

void writeAt(int parent, const std::string& name, const std::string& content) {
  int fd = openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
  ASSERT_GE(fd, 0) << name;
  ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  close(fd);
}

TEST_F(ScanRoot, KeepsPathsWithin4095Characters) {
  // Seen from the root a path begins "//": the directory below is 1 + 20 * 201 + 72 = 4093
  // characters long. Such deep trees can only be built relative to an open directory.
  int fd = open(root_.path().c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < 21; ++i) {
    int next = makeDirectoryAt(fd, std::string(i < 20 ? 200 : 71, static_cast<char>('a' + i)));
    close(fd);
    fd = next;
  }
  writeAt(fd, "x", elf(2, 2, 62));   // 4095 characters: recorded
  writeAt(fd, "yy", elf(2, 2, 62));  // 4096: skipped, its siblings still walked
  int at4095 = makeDirectoryAt(fd, "d");
  writeAt(at4095, "z", elf(2, 2, 62));  // its directory has 4095 characters: not entered
  close(at4095);
  close(fd);
  write("top", elf(2, 2, 62));
  EXPECT_EQ(scannedNames(), (std::set<std::string>{"x", "top"}));
}

// The process may open only a few descriptors more than it has open: a walk that kept a directory
// open for every level would lose the tree below the first few dozen. Two branches leave level 100
// and go 50 deeper, so whichever comes first, the walk comes back to level 100 (long closed) to
// enter the other; the chain goes on to level 300.
TEST_F(ScanRoot, DeepTreeIsWalkedWholeWithFewDirectoriesOpen) {
  std::string level;
  std::set<std::string> expected;
  for (int depth = 1; depth <= 300; ++depth) {
    level += "d/";
    if (depth % 60 == 0) {
      write(level + "at" + std::to_string(depth), elf(2, 2, 62));
      expected.insert("at" + std::to_string(depth));
    }
    if (depth == 100) {
      for (const std::string branch : {"a", "b"}) {
        std::string deep = level;
        for (int i = 0; i < 50; ++i) deep += branch + "/";
        write(deep + branch + "-end", elf(2, 2, 62));
        expected.insert(branch + "-end");
      }
    }
  }
  write(level + "bottom", elf(2, 3, 62, true));
  expected.insert("bottom");

  std::set<std::string> names;
  {
    FewDescriptors few;
    names = scannedNames();
  }
  EXPECT_EQ(names, expected);
}

// A directory the walk closed (for the bound on open directories) and comes back to is swapped,
// while the walk is deep in its first subdirectory, for another holding a subdirectory of the same
// name: the walk must not enter the stranger. Opening the program at the bottom of the first
// subdirectory is the moment (a permission event holds it while the directories are swapped).
TEST_F(ScanRoot, ADirectorySwappedWhileClosedIsNotWalkedAgain) {
  forgetKnownFiles(Forget::kMemoryAndFile);
  const std::string chain = "/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/";
  for (const std::string branch : {"x", "y"})
    write("top/" + branch + chain + "mark", elf(2, 2, 62));
  test::TempDir stranger;
  for (const std::string branch : {"x", "y"}) {
    stranger.writeFile(branch + "/intruder", elf(2, 2, 62));
    ASSERT_EQ(chmod(stranger.file(branch + "/intruder").c_str(), 0755), 0);
  }
  const int events = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (events < 0) GTEST_SKIP() << "no permission events here: " << strerror(errno);
  for (const std::string branch : {"x", "y"}) {
    ASSERT_EQ(fanotify_mark(events, FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD,
                            root_.file("top/" + branch + chain + "mark").c_str()),
              0);
  }
  const std::string tracePath = root_.file("trace.log");
  startTrace(tracePath.c_str());
  setTraceLevel(1);
  std::atomic<bool> walked{false};
  std::set<std::string> names;
  std::thread walk([&] {
    FewDescriptors few;
    names = scannedNames();
    walked = true;
  });
  bool swapped = false;
  while (!walked) {
    pollfd ready{events, POLLIN, 0};
    if (poll(&ready, 1, 20) <= 0) continue;
    fanotify_event_metadata event;
    if (read(events, &event, sizeof event) != static_cast<ssize_t>(sizeof event)) continue;
    if (!swapped) {
      swapped = renameat2(AT_FDCWD, root_.file("top").c_str(), AT_FDCWD, stranger.path().c_str(),
                          RENAME_EXCHANGE) == 0;
    }
    const fanotify_response allow{event.fd, FAN_ALLOW};
    EXPECT_EQ(::write(events, &allow, sizeof allow), static_cast<ssize_t>(sizeof allow));
    close(event.fd);
  }
  walk.join();
  close(events);
  stopTrace();
  setTraceLevel(-1);
  ASSERT_TRUE(swapped);
  EXPECT_EQ(names, std::set<std::string>{"mark"});
  EXPECT_NE(test::readFile(tracePath).find("WARNING - Directory //top changed during the scan"),
            std::string::npos);
}

// Hard links make as many records as names: a user can make thousands of one program. The walk
// ends at the bound, keeping what it recorded; a tree within the bound is walked whole.
TEST_F(ScanRoot, StopsAtTheBoundOnRecordsWithAWarning) {
  write("bin/prog", elf(2, 2, 62));
  for (int i = 0; i < 29; ++i) {
    const std::string name = root_.file("bin/link" + std::to_string(i));
    ASSERT_EQ(::link(root_.file("bin/prog").c_str(), name.c_str()), 0);
  }
  const std::string tracePath = root_.file("trace.log");
  struct Case {
    int64_t bound;
    size_t records;
    bool warned;
  } cases[] = {{30, 30, false}, {29, 29, true}, {1, 1, true}};
  for (const Case& c : cases) {
    SecuritySettings settings;
    settings.maxScanRecords = c.bound;
    setSecuritySettings(settings);
    startTrace(tracePath.c_str());
    int result = -1;
    EXPECT_EQ(scan(FileSystemCheck::kOncePerDevice, &result).size(), c.records) << c.bound;
    EXPECT_EQ(result, kSearchOk);
    stopTrace();
    const std::string warning = "WARNING - Scan stopped at " + std::to_string(c.bound) + " records";
    EXPECT_EQ(test::readFile(tracePath).find(warning) != std::string::npos, c.warned) << c.bound;
  }
  setSecuritySettings(SecuritySettings{});
  setTraceLevel(-1);
}

// A name swapped between a regular program and a FIFO, over and over, while walks run: a walk
// that opened what it looked at as a program and got the FIFO would wait for a writer for ever.
// Every walk must end; one that does not is released by a writer, and the test fails.
TEST_F(ScanRoot, ACandidateSwappedForAFifoNeverHoldsTheWalk) {
  write("opt/app", elf(2, 2, 62));
  const std::string app = root_.file("opt/app");
  const std::string pipe = root_.file("opt/pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0755), 0);
  std::atomic<bool> swapping{true};
  std::atomic<bool> walked{false};
  std::thread swapper([&] {
    while (swapping) {
      renameat2(AT_FDCWD, app.c_str(), AT_FDCWD, pipe.c_str(), RENAME_EXCHANGE);
    }
  });
  std::thread walks([&] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end) {
      for (const InventoryRecord& record : scan()) {
        EXPECT_TRUE(strcmp(record.name, "app") == 0 || strcmp(record.name, "pipe") == 0);
      }
    }
    walked = true;
  });
  const bool ended = test::waitUntil([&] { return walked.load(); }, std::chrono::seconds(20));
  swapping = false;
  swapper.join();
  while (!walked) {
    for (const std::string& name : {app, pipe}) {
      const int writer = open(name.c_str(), O_WRONLY | O_NONBLOCK);
      if (writer >= 0) close(writer);
    }
  }
  walks.join();
  EXPECT_TRUE(ended) << "a walk waited on the FIFO";
}

TEST_F(ScanRoot, OneFileSystemCheckPerDeviceGivesTheRecordsOfOnePerPath) {
  for (int d = 0; d < 20; ++d) {
    const std::string dir = "tree/d" + std::to_string(d) + "/";
    for (int f = 0; f < 10; ++f) {
      write(dir + "exe" + std::to_string(f), elf(2, f % 3 == 0 ? 3 : 2, 62, f % 2 == 0),
            f % 4 == 0 ? 0644 : 0755);
    }
    link("../d0", dir + "up");
  }
  write("proc/hidden", elf(2, 2, 62));
  int onceResult = -1;
  int everyResult = -1;
  const std::vector<InventoryRecord> once = scan(FileSystemCheck::kOncePerDevice, &onceResult);
  const std::vector<InventoryRecord> every = scan(FileSystemCheck::kEveryPath, &everyResult);
  EXPECT_EQ(onceResult, kSearchOk);
  EXPECT_EQ(everyResult, kSearchOk);
  // Five of every ten files are executables: types 2, and 3 with an interpreter, with exec bits.
  ASSERT_EQ(once.size(), 100u);
  ASSERT_EQ(every.size(), 100u);
  for (size_t i = 0; i < once.size(); ++i) {
    EXPECT_EQ(memcmp(&once[i], &every[i], sizeof once[i]), 0) << once[i].name;
  }
}

// Answers kept from the last walk stand only for files that have not moved since: a rewrite of the
// same size, a file replaced under its name, and a file that lost its exec bits all count anew.
// The clock runs a minute ahead so that every file made here counts as settled.
TEST_F(ScanRoot, AnswersOfTheLastWalkStandOnlyForUnchangedFiles) {
  setSlmClock([] { return static_cast<int64_t>(time(nullptr)) + 60; });
  forgetKnownFiles(Forget::kMemoryAndFile);
  const std::string script(elf(2, 2, 62).size(), '#');
  write("bin/rewritten", elf(2, 2, 62));
  write("bin/replaced", script);
  write("bin/unmarked", elf(2, 2, 62));
  write("bin/kept", elf(2, 3, 62, true));
  EXPECT_EQ(scannedNames(), (std::set<std::string>{"rewritten", "unmarked", "kept"}));
  {
    // In place: the same inode and size, new content.
    const int fd = open(root_.file("bin/rewritten").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, script.data(), script.size(), 0), static_cast<ssize_t>(script.size()));
    close(fd);
  }
  write("bin/replaced.new", elf(2, 2, 62));
  ASSERT_EQ(rename(root_.file("bin/replaced.new").c_str(), root_.file("bin/replaced").c_str()), 0);
  ASSERT_EQ(chmod(root_.file("bin/unmarked").c_str(), 0644), 0);
  EXPECT_EQ(scannedNames(), (std::set<std::string>{"replaced", "kept"}));
  setSlmClock(nullptr);
  forgetKnownFiles(Forget::kMemoryAndFile);
}

// Answers stored by the last walk of an earlier run stand in for reads at the first walk of the
// next: stored answers turned round by hand are what that walk records. A stored file that cannot
// be used is set aside, and that walk reads every candidate and stores the file anew.
TEST_F(ScanRoot, AnswersOutliveARestartInTheirFile) {
  setSlmClock([] { return static_cast<int64_t>(time(nullptr)) + 60; });
  forgetKnownFiles(Forget::kMemoryAndFile);
  root_.makeDirs("var/qsam/cache");
  const std::string stored = root_.file("var/qsam/cache/scanknown.dat");
  write("bin/program", elf(2, 2, 62));
  write("bin/script", std::string(elf(2, 2, 62).size(), '#'));
  auto storedFiles = [&] {
    const std::string raw = test::readFile(stored);
    std::vector<KnownFile> files;
    EXPECT_TRUE(decodeKnownFiles(reinterpret_cast<const uint8_t*>(raw.data()), raw.size(), &files));
    return files;
  };
  ASSERT_EQ(scannedNames(), std::set<std::string>{"program"});
  std::vector<KnownFile> files = storedFiles();
  ASSERT_EQ(files.size(), 2u);
  for (KnownFile& known : files) known.state ^= 1;
  const std::vector<uint8_t> turned = encodeKnownFiles(files);
  root_.writeFile("var/qsam/cache/scanknown.dat", std::string(turned.begin(), turned.end()));
  struct stat before, after;
  ASSERT_EQ(stat(stored.c_str(), &before), 0);
  forgetKnownFiles(Forget::kMemory);
  EXPECT_EQ(scannedNames(), std::set<std::string>{"script"});
  // Nothing changed: the file is left as it was, not written again.
  ASSERT_EQ(stat(stored.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);

  root_.writeFile("var/qsam/cache/scanknown.dat", std::string(turned.begin(), turned.end() - 1));
  forgetKnownFiles(Forget::kMemory);
  EXPECT_EQ(scannedNames(), std::set<std::string>{"program"});
  files = storedFiles();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].state & 1, 1 - (files[1].state & 1));
  for (KnownFile& known : files) known.state ^= 1;
  EXPECT_EQ(encodeKnownFiles(files), turned);
  setSlmClock(nullptr);
  forgetKnownFiles(Forget::kMemoryAndFile);
  EXPECT_FALSE(test::fileExists(stored));

  // On the real clock: a program whose contents date from yesterday but whose inode changed just
  // now is recorded, and not remembered before it has settled.
  write("bin/fresh", elf(2, 2, 62));
  const struct timespec yesterday[2] = {{0, UTIME_OMIT}, {time(nullptr) - 86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, root_.file("bin/fresh").c_str(), yesterday, 0), 0);
  EXPECT_EQ(scannedNames().count("fresh"), 1u);
  EXPECT_TRUE(!test::fileExists(stored) || storedFiles().empty());
  forgetKnownFiles(Forget::kMemoryAndFile);
}

// A scan leaves access times as they were, so it never has the file system write inodes back. The
// times are set a day before the last change, which a relatime mount would otherwise update on the
// first read.
TEST_F(ScanRoot, LeavesAccessTimesAlone) {
  forgetKnownFiles(Forget::kMemoryAndFile);
  write("bin/tool", elf(2, 2, 62));
  struct stat before;
  for (const char* relative : {"bin", "bin/tool"}) {
    const std::string path = root_.file(relative);
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    const struct timespec times[2] = {{before.st_mtim.tv_sec - 86400, 0}, {0, UTIME_OMIT}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  EXPECT_EQ(scannedNames(), (std::set<std::string>{"tool"}));
  for (const char* relative : {"bin", "bin/tool"}) {
    struct stat after;
    ASSERT_EQ(stat(root_.file(relative).c_str(), &after), 0);
    EXPECT_EQ(after.st_atim.tv_sec, after.st_mtim.tv_sec - 86400) << relative;
  }
}

// A request to the kernel's automount control device, laid out as the kernel reads it (its own
// header does not compile as C++): version 1.1, the size with the path, the mount's descriptor,
// the command's 8 bytes of arguments, then the path.
struct AutofsControl {
  uint32_t versionMajor = 1;
  uint32_t versionMinor = 1;
  uint32_t size = sizeof(AutofsControl);
  int32_t mountFd = -1;
  uint32_t arguments[2] = {};
};
static_assert(sizeof(AutofsControl) == 24);
constexpr unsigned long kAutofsOpenMount = _IOWR(AUTOFS_IOCTL, 0x74, AutofsControl);
constexpr unsigned long kAutofsCatatonic = _IOWR(AUTOFS_IOCTL, 0x79, AutofsControl);

// A hold on the automount at `point` through the control device, taken before anything waits on
// it (taking it later would wait too): giveUp() then puts the automount into the state where it
// answers every request with "no such file" at once, as when its daemon has gone, and a walk that
// asked it to mount can end.
struct AutomountHold {
  int control = -1;
  int mountFd = -1;

  explicit AutomountHold(const std::string& point) {
    struct stat status;
    if (fstatat(AT_FDCWD, point.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    AutofsControl request;
    request.size = static_cast<uint32_t>(sizeof request + point.size() + 1);
    request.arguments[0] = static_cast<uint32_t>(status.st_dev);
    std::vector<char> buffer(request.size);
    memcpy(buffer.data(), &request, sizeof request);
    memcpy(buffer.data() + sizeof request, point.c_str(), point.size() + 1);
    control = open("/dev/autofs", O_RDONLY | O_CLOEXEC);
    if (control < 0 || ioctl(control, kAutofsOpenMount, buffer.data()) != 0) return;
    memcpy(&request, buffer.data(), sizeof request);
    mountFd = request.mountFd;
  }
  ~AutomountHold() {
    if (mountFd >= 0) close(mountFd);
    if (control >= 0) close(control);
  }
  void giveUp() const {
    const AutofsControl catatonic{.mountFd = mountFd};
    EXPECT_EQ(ioctl(control, kAutofsCatatonic, &catatonic), 0);
  }
};

// A directory an automounter mounts on demand (a share of the organisation's) is not mounted by a
// scan, which would otherwise wait on its server: the walk asks its device and file system without
// opening it. The point is the kernel's own, with a daemon that only sleeps; a mount request shows
// on its pipe, and the test then gives the automount up so that the walk ends.
TEST_F(ScanRoot, MountsNothingAnAutomounterWouldMount) {
  write("bin/tool", elf(2, 2, 62));
  root_.makeDirs("share");
  const std::string point = root_.file("share");
  int requests[2];
  ASSERT_EQ(pipe2(requests, O_CLOEXEC), 0);
  const pid_t daemon = fork();
  ASSERT_GE(daemon, 0);
  if (daemon == 0) {
    setpgid(0, 0);
    pause();
    _exit(0);
  }
  setpgid(daemon, daemon);
  const std::string options = "fd=" + std::to_string(requests[1]) +
                              ",pgrp=" + std::to_string(daemon) + ",minproto=5,maxproto=5,direct";
  const bool mounted = mount("scan-test", point.c_str(), "autofs", 0, options.c_str()) == 0;
  const int mountError = errno;
  close(requests[1]);
  if (mounted) {
    // Without the hold a walk that asks would wait for ever: it is not started then.
    const AutomountHold hold(point);
    EXPECT_GE(hold.mountFd, 0) << "the automount cannot be held: " << strerror(errno);
    if (hold.mountFd >= 0) {
      std::set<std::string> names;
      EXPECT_FALSE(walkAsks(
          requests[0], [&] { hold.giveUp(); }, &names))
          << "the walk asked for the share to be mounted";
      EXPECT_EQ(names, std::set<std::string>{"tool"});
    }
    umount2(point.c_str(), MNT_DETACH);
  }
  kill(daemon, SIGKILL);
  waitpid(daemon, nullptr, 0);
  close(requests[0]);
  if (!mounted) GTEST_SKIP() << "no automount can be made here: " << strerror(mountError);
}

// Answers the kernel's opening request on the device of a file system served by a process, as
// that process would. Whether it could.
bool answerHandshake(int device) {
  std::vector<char> request(FUSE_MIN_READ_BUFFER);
  fuse_in_header in;
  if (read(device, request.data(), request.size()) < static_cast<ssize_t>(sizeof in)) return false;
  memcpy(&in, request.data(), sizeof in);
  if (in.opcode != FUSE_INIT) return false;
  struct {
    fuse_out_header header;
    fuse_init_out init;
  } reply{};
  reply.header.len = sizeof reply;
  reply.header.unique = in.unique;
  reply.init.major = FUSE_KERNEL_VERSION;
  reply.init.minor = FUSE_KERNEL_MINOR_VERSION;
  reply.init.max_write = 4096;
  return write(device, &reply, sizeof reply) == static_cast<ssize_t>(sizeof reply);
}

// A file system the walk does not walk is left without a look, whatever serves it: a look could
// wait for ever on a share whose server is down. Here one served by a process of its own that has
// answered its opening handshake and nothing more: a question the walk asked shows on its device,
// and closing the device then breaks the connection off so that the walk ends.
TEST_F(ScanRoot, AsksNothingOfAFileSystemItDoesNotWalk) {
  write("bin/tool", elf(2, 2, 62));
  root_.makeDirs("remote");
  const std::string point = root_.file("remote");
  int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  const std::string options =
      "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
  if (device < 0 || mount("scan-test", point.c_str(), "fuse.scan-test", MS_NOSUID | MS_NODEV,
                          options.c_str()) != 0) {
    const int error = errno;
    if (device >= 0) close(device);
    GTEST_SKIP() << "no file system of a process can be mounted here: " << strerror(error);
  }
  EXPECT_TRUE(answerHandshake(device));
  std::set<std::string> names;
  auto breakOff = [&] {
    close(device);
    device = -1;
  };
  EXPECT_FALSE(walkAsks(device, breakOff, &names)) << "the walk asked the file system a question";
  EXPECT_EQ(names, std::set<std::string>{"tool"});
  umount2(point.c_str(), MNT_DETACH);
  if (device >= 0) close(device);
}

// What is mounted last at a point stands: a memory file system mounted over by a local directory
// is walked again, and its program is recorded twice.
TEST_F(ScanRoot, WalksWhatIsMountedLastAtAPoint) {
  write("local/tool", elf(2, 2, 62));
  root_.makeDirs("point");
  const std::string point = root_.file("point");
  if (mount("scan-test", point.c_str(), "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "no file system can be mounted here: " << strerror(errno);
  }
  // A file system that is not walked at point/inner, then hidden with everything below the point
  // by a bind mount over it: what the point shows now, local/inner included, is walked.
  write("local/inner/tool", elf(2, 2, 62));
  root_.makeDirs("point/inner");
  const std::string inner = root_.file("point/inner");
  ASSERT_EQ(mount("scan-test", inner.c_str(), "tmpfs", 0, nullptr), 0) << strerror(errno);
  const bool bound =
      mount(root_.file("local").c_str(), point.c_str(), nullptr, MS_BIND, nullptr) == 0;
  EXPECT_TRUE(bound) << strerror(errno);
  EXPECT_EQ(scan().size(), bound ? 4u : 2u);
  if (bound) umount2(point.c_str(), MNT_DETACH);
  umount2(inner.c_str(), MNT_DETACH);
  umount2(point.c_str(), MNT_DETACH);
}

TEST(Searcher, KnownFilesFileLayout) {
  const std::vector<KnownFile> files = {{0x0102030405060708, 0x1112131415161719},
                                        {0x0102030405060708, 0x2122232425262728},
                                        {0xF0E0D0C0B0A09080, 0x3132333435363738}};
  const std::string expected =
      test::bytes({1, 0, 0, 0, 1, 0, 0, 0, 3, 0, 0, 0, 0x33, 0xB6, 0x6E, 0x98}) +
      test::bytes({8, 7, 6, 5, 4, 3, 2, 1, 0x19, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11}) +
      test::bytes({8, 7, 6, 5, 4, 3, 2, 1, 0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21}) +
      test::bytes({0x80, 0x90, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0, 0xF0}) +
      test::bytes({0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31});
  const std::vector<uint8_t> raw = encodeKnownFiles(files);
  ASSERT_EQ(std::string(raw.begin(), raw.end()), expected);
  std::vector<KnownFile> decoded;
  ASSERT_TRUE(decodeKnownFiles(raw.data(), raw.size(), &decoded));
  EXPECT_EQ(decoded, files);
  EXPECT_TRUE(decodeKnownFiles(encodeKnownFiles({}).data(), kKnownFilesHeaderSize, &decoded));
  EXPECT_TRUE(decoded.empty());
  // Cut anywhere, or any bit of it turned: never used.
  for (size_t size = 0; size < raw.size(); ++size) {
    EXPECT_FALSE(decodeKnownFiles(raw.data(), size, &decoded)) << size;
  }
  for (size_t bit = 0; bit < raw.size() * 8; ++bit) {
    std::vector<uint8_t> damaged = raw;
    damaged[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(decodeKnownFiles(damaged.data(), damaged.size(), &decoded)) << bit;
    EXPECT_TRUE(decoded.empty());
  }
  // Out of order, even with a check that agrees.
  std::vector<KnownFile> unordered = {files[2], files[0]};
  std::vector<uint8_t> written = encodeKnownFiles(unordered);
  EXPECT_FALSE(decodeKnownFiles(written.data(), written.size(), &decoded));
}

TEST(Searcher, ValidPathsLieOnWalkedFileSystemsOutsideProcAndXfn) {
  struct Case {
    const char* path;
    int expected;
  };
  const Case cases[] = {
      {"/", kPathNotValid},  // replaced below when / is on a walked file system
      {"/proc", kPathNotValid},
      {"/proc/self", kPathNotValid},
      {"/dev/shm", kPathNotValid},
      {"/sys", kPathNotValid},
      {"//proc", kPathNotValid},
      {"//xfn", kPathNotValid},
      {"/no/such/path", kPathNotValid},
  };
  struct statfs info;
  ASSERT_EQ(statfs("/", &info), 0);
  const int rootExpected =
      isWalkedFileSystem(static_cast<uint32_t>(info.f_type)) ? kPathValid : kPathNotValid;
  for (const Case& c : cases) {
    const int expected = std::string(c.path) == "/" ? rootExpected : c.expected;
    EXPECT_EQ(isValidPath(c.path), expected) << c.path;
  }
  for (uint32_t type : {0x9123683Eu, 0xF2F52010u, 0xCA451A4Eu, 0x2FC12FC1u, 0xEF53u}) {
    EXPECT_TRUE(isWalkedFileSystem(type)) << std::hex << type;
  }
  for (uint32_t type : {0x01021994u, 0x6969u, 0x9FA0u, 0x62656572u}) {  // tmpfs nfs proc sysfs
    EXPECT_FALSE(isWalkedFileSystem(type)) << std::hex << type;
  }
}

TEST(Searcher, LowersThePriorityOfTheCallingThreadOnly) {
  auto priorities = [](pid_t tid) {
    const long io = syscall(SYS_ioprio_get, 1, tid);
    return std::make_pair(getpriority(PRIO_PROCESS, static_cast<id_t>(tid)), io >> 13);
  };
  const auto before = priorities(gettid());
  std::pair<int, long> scanning{};
  std::thread scanner([&] {
    EXPECT_EQ(lowerScanPriority(), 0);
    scanning = priorities(gettid());
  });
  scanner.join();
  EXPECT_EQ(scanning, std::make_pair(19, 3L));
  EXPECT_EQ(priorities(gettid()), before);
}

}  // namespace
}  // namespace slm
