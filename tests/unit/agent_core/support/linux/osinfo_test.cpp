#include "agent_core/support/linux/osinfo.h"

#include "agent_core/message/nls.h"

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/temp_root.h"

namespace slm {
namespace {

utsname systemNames() {
  utsname names{};
  EXPECT_EQ(uname(&names), 0);
  return names;
}

// Runs `action` with the trace going to a file in `dir` and returns the trace text.
template <typename Action>
std::string traced(const test::TempDir& dir, Action action) {
  std::string path = dir.file("traceagt.log");
  startTrace(path.c_str());
  action();
  stopTrace();
  setTraceLevel(-1);
  return test::readFile(path);
}

TEST(OsInfo, MachineFamilyGroupsEveryIntelMachineAsX86) {
  const std::pair<const char*, const char*> cases[] = {
      {"i686", "x86"},  {"i386", "x86"},        {"x86_64", "x86"},  {"86", "x86"},
      {"ia64", "ia64"}, {"aarch64", "aarch64"}, {"s390x", "s390x"}, {"", ""},
  };
  for (const auto& [machine, family] : cases) EXPECT_STREQ(machineFamily(machine), family);
}

TEST(OsInfo, SystemEnvironmentComesFromUnameAndIsCutToSize) {
  utsname names = systemNames();
  std::string family = machineFamily(names.machine);
  for (size_t size : {256, 4}) {
    char machine[256] = "";
    char system[256] = "";
    char release[256] = "";
    ASSERT_EQ(getSystemEnvironment(machine, system, release, size), kOsInfoSuccess);
    EXPECT_EQ(std::string(system), std::string(names.sysname).substr(0, size - 1));
    EXPECT_EQ(std::string(release), std::string(names.release).substr(0, size - 1));
    EXPECT_EQ(std::string(machine), family.substr(0, size - 1));
  }
}

TEST(OsInfo, OsDescriptionJoinsSystemAndReleaseWithinTheBuffer) {
  const std::pair<size_t, const char*> cases[] = {
      {15, "Linux 6.1.0-18"}, {14, "Linux 6.1.0-1"}, {6, "Linux"}, {1, ""}};
  for (const auto& [size, expected] : cases) {
    std::vector<char> buffer(size, '#');
    formatOsDescription("Linux", "6.1.0-18", buffer.data(), buffer.size());
    EXPECT_STREQ(buffer.data(), expected) << "size " << size;
  }
  utsname names = systemNames();
  char description[512];
  getOsDescription(description, sizeof(description));
  EXPECT_EQ(std::string(description), std::string(names.sysname) + " " + names.release);
}

TEST(OsInfo, HostNameIsTheSystemHostNameCutToSize) {
  char expected[HOST_NAME_MAX + 1] = "";
  ASSERT_EQ(gethostname(expected, sizeof(expected)), 0);
  char name[256] = "";
  ASSERT_EQ(getHostName(name, sizeof(name)), kOsInfoSuccess);
  EXPECT_STREQ(name, expected);
  ASSERT_EQ(getHostName(name, 3), kOsInfoSuccess);
  EXPECT_EQ(std::string(name), std::string(expected).substr(0, 2));
}

TEST(OsInfo, MemoryAndProcessorsAreReported) {
  int32_t megabytes = -1;
  ASSERT_EQ(getMemInfo(&megabytes), kOsInfoSuccess);
  EXPECT_GT(megabytes, 0);
  EXPECT_EQ(getMemInfo(nullptr), kOsInfoFailure);
  int32_t configured = -1;
  int32_t online = -1;
  ASSERT_EQ(getCPUInfo(&configured, &online), kOsInfoSuccess);
  EXPECT_EQ(configured, sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(online, configured);
}

std::vector<std::string> probedDevices;
std::set<std::string> disksPresent;

bool recordingProbe(const char* devicePath) {
  probedDevices.emplace_back(devicePath);
  return disksPresent.count(devicePath) != 0;
}

TEST(OsInfo, DiskWalkProbesIdeThenScsiDevicesAndCountsThoseThatAnswer) {
  disksPresent = {"/dev/hda", "/dev/sda", "/dev/sdb", "/dev/hdz", "/dev/sdz"};
  EXPECT_EQ(countDisks(recordingProbe), 5);
  std::vector<std::string> expected;
  for (const char* prefix : {"/dev/hd", "/dev/sd"}) {
    for (char letter = 'a'; letter <= 'z'; ++letter)
      expected.push_back(prefix + std::string{letter});
  }
  EXPECT_EQ(probedDevices, expected);
  disksPresent.clear();
  EXPECT_EQ(countDisks(recordingProbe), 0);
}

TEST(OsInfo, DiskCountUnderARootWithoutDisksIsZero) {
  test::TempDir root;
  std::string savedRoot = agentRoot();
  setAgentRoot(root.path().c_str());
  // Plain files where disks would be: they open, but refuse the geometry request.
  root.writeFile("dev/hda", "not a disk");
  root.writeFile("dev/sdc", "not a disk");
  root.makeDirs("dev/sda");

  int32_t count = -1;
  int result = kOsInfoFailure;
  std::string trace = traced(root, [&] { result = getDiskInfo(&count); });
  if (geteuid() == 0) {
    EXPECT_EQ(result, kOsInfoSuccess);
    EXPECT_EQ(count, 0);
  } else {
    EXPECT_EQ(result, kOsInfoFailure);
    EXPECT_EQ(count, -1);
    EXPECT_NE(trace.find("ERROR - No root: unable to read disks number\n"), std::string::npos);
  }
  EXPECT_EQ(getDiskInfo(nullptr), kOsInfoFailure);
  count = -1;
  EXPECT_EQ(GetNumDisks(&count), kOsInfoSuccess);
  EXPECT_EQ(count, 0);
  EXPECT_FALSE(answersDriveGeometry("/dev/hda"));
  setAgentRoot(savedRoot.c_str());
}

TEST(OsInfo, AccountNamesComeFromTheDatabasesOrFallBackToTheId) {
  char name[64] = "";
  ASSERT_EQ(getUserName(getuid(), name, sizeof(name)), kOsInfoSuccess);
  const passwd* user = getpwuid(getuid());
  EXPECT_STREQ(name, user != nullptr ? user->pw_name : std::to_string(getuid()).c_str());
  ASSERT_EQ(getUserGroup(getgid(), name, sizeof(name)), kOsInfoSuccess);
  const group* primary = getgrgid(getgid());
  EXPECT_STREQ(name, primary != nullptr ? primary->gr_name : std::to_string(getgid()).c_str());

  const uid_t unknownId = 54321;
  ASSERT_EQ(getpwuid(unknownId), nullptr);
  ASSERT_EQ(getgrgid(unknownId), nullptr);
  ASSERT_EQ(getUserName(unknownId, name, sizeof(name)), kOsInfoSuccess);
  EXPECT_STREQ(name, "54321");
  ASSERT_EQ(getUserGroup(unknownId, name, sizeof(name)), kOsInfoSuccess);
  EXPECT_STREQ(name, "54321");
}

TEST(OsInfo, AccountNameNeedsTenBytes) {
  test::TempDir dir;
  char buffer[16] = "untouched";
  std::string trace = traced(dir, [&] {
    EXPECT_EQ(getUserName(54321, buffer, 9), kOsInfoFailure);
    EXPECT_EQ(getUserGroup(54321, buffer, 9), kOsInfoFailure);
  });
  EXPECT_STREQ(buffer, "untouched");
  size_t first = trace.find("ERROR - Buffer size littler than 10\n");
  ASSERT_NE(first, std::string::npos) << trace;
  EXPECT_NE(trace.find("ERROR - Buffer size littler than 10\n", first + 1), std::string::npos);
  EXPECT_EQ(getUserName(54321, buffer, 10), kOsInfoSuccess);
  EXPECT_STREQ(buffer, "54321");
}

TEST(OsInfo, AccountNameFormatting) {
  struct Case {
    const char* localName;
    int32_t id;
    size_t size;
    const char* expected;
  };
  const Case cases[] = {
      {"root", 0, 32, "root"},
      {nullptr, 1234, 32, "1234"},
      {nullptr, -2, 32, "-2"},     // ids above INT_MAX print as signed decimal
      {"\xff\xfe", 77, 32, "77"},  // not a text of the local code set (UTF-8 here)
      {"abcdefghijklmnop", 5, 10, "abcdefghi"},
      {nullptr, INT_MAX, 10, "214748364"},
  };
  CodeSet* utf8 = createCodeSet("utf-8");
  ASSERT_NE(utf8, nullptr);
  setDefaultCodeSet(utf8);
  for (const Case& c : cases) {
    std::vector<char> buffer(c.size, '#');
    formatAccountName(c.localName, c.id, buffer.data(), buffer.size());
    EXPECT_STREQ(buffer.data(), c.expected) << c.id;
  }
  freeCodeSet(utf8);
}

}  // namespace
}  // namespace slm
