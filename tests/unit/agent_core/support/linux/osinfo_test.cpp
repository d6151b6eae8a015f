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

// Makes `dir` the agent root while it lives.
class ScopedAgentRoot {
 public:
  explicit ScopedAgentRoot(const std::string& dir) : saved_(agentRoot()) {
    setAgentRoot(dir.c_str());
  }
  ~ScopedAgentRoot() { setAgentRoot(saved_.c_str()); }
  ScopedAgentRoot(const ScopedAgentRoot&) = delete;
  ScopedAgentRoot& operator=(const ScopedAgentRoot&) = delete;

 private:
  std::string saved_;
};

TEST(OsInfo, MachineFamilyGroupsEveryIntelMachineAsX86) {
  struct Case {
    const char* machine;
    const char* expected;
  };
  const Case cases[] = {
      {"i686", "x86"},  {"i386", "x86"},        {"x86_64", "x86"},  {"86", "x86"},
      {"ia64", "ia64"}, {"aarch64", "aarch64"}, {"s390x", "s390x"}, {"", ""},
  };
  for (const Case& c : cases) EXPECT_STREQ(machineFamily(c.machine), c.expected) << c.machine;
}

TEST(OsInfo, SystemEnvironmentComesFromUnameAndIsCutToSize) {
  utsname names = systemNames();
  char machine[256] = "";
  char system[256] = "";
  char release[256] = "";
  ASSERT_EQ(getSystemEnvironment(machine, system, release, sizeof(machine)), kOsInfoSuccess);
  EXPECT_STREQ(system, names.sysname);
  EXPECT_STREQ(release, names.release);
  EXPECT_STREQ(machine, machineFamily(names.machine));

  char shortMachine[4];
  char shortSystem[4];
  char shortRelease[4];
  memset(shortRelease, 'x', sizeof(shortRelease));
  ASSERT_EQ(getSystemEnvironment(shortMachine, shortSystem, shortRelease, 4), kOsInfoSuccess);
  EXPECT_EQ(std::string(shortSystem), std::string(names.sysname).substr(0, 3));
  EXPECT_EQ(std::string(shortRelease), std::string(names.release).substr(0, 3));
  EXPECT_EQ(std::string(shortMachine), std::string(machineFamily(names.machine)).substr(0, 3));
}

TEST(OsInfo, OsDescriptionJoinsSystemAndReleaseWithinTheBuffer) {
  struct Case {
    size_t size;
    const char* expected;
  };
  const Case cases[] = {{64, "Linux 6.1.0-18"}, {15, "Linux 6.1.0-18"}, {14, "Linux 6.1.0-1"},
                        {7, "Linux "},          {6, "Linux"},           {1, ""}};
  for (const Case& c : cases) {
    std::vector<char> buffer(c.size, '#');
    formatOsDescription("Linux", "6.1.0-18", buffer.data(), buffer.size());
    EXPECT_STREQ(buffer.data(), c.expected) << "size " << c.size;
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

  char shortName[3];
  ASSERT_EQ(getHostName(shortName, sizeof(shortName)), kOsInfoSuccess);
  EXPECT_EQ(std::string(shortName), std::string(expected).substr(0, 2));
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
  probedDevices.clear();
  disksPresent = {"/dev/hda", "/dev/sda", "/dev/sdb", "/dev/hdz", "/dev/sdz"};
  EXPECT_EQ(countDisks(recordingProbe), 5);

  std::vector<std::string> expected;
  for (const char* prefix : {"/dev/hd", "/dev/sd"}) {
    for (char letter = 'a'; letter <= 'z'; ++letter)
      expected.push_back(prefix + std::string(1, letter));
  }
  EXPECT_EQ(probedDevices, expected);

  probedDevices.clear();
  disksPresent.clear();
  EXPECT_EQ(countDisks(recordingProbe), 0);
}

TEST(OsInfo, DiskCountUnderARootWithoutDisksIsZero) {
  test::TempDir root;
  ScopedAgentRoot scoped(root.path());
  // Plain files where disks would be: they open, but refuse the geometry request.
  root.writeFile("dev/hda", "not a disk");
  root.writeFile("dev/sdc", "not a disk");
  root.makeDirs("dev/sda");

  std::string tracePath = root.file("traceagt.log");
  startTrace(tracePath.c_str());
  int32_t count = -1;
  int result = getDiskInfo(&count);
  stopTrace();
  setTraceLevel(-1);

  if (geteuid() == 0) {
    EXPECT_EQ(result, kOsInfoSuccess);
    EXPECT_EQ(count, 0);
  } else {
    EXPECT_EQ(result, kOsInfoFailure);
    EXPECT_EQ(count, -1);
    EXPECT_NE(test::readFile(tracePath).find("ERROR - No root: unable to read disks number\n"),
              std::string::npos);
  }
  EXPECT_EQ(getDiskInfo(nullptr), kOsInfoFailure);

  count = -1;
  EXPECT_EQ(GetNumDisks(&count), kOsInfoSuccess);
  EXPECT_EQ(count, 0);
  EXPECT_FALSE(answersDriveGeometry("/dev/hda"));
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
  std::string tracePath = dir.file("traceagt.log");
  startTrace(tracePath.c_str());
  char buffer[16];
  memcpy(buffer, "untouched", 10);
  int userResult = getUserName(54321, buffer, 9);
  int groupResult = getUserGroup(54321, buffer, 9);
  stopTrace();
  setTraceLevel(-1);

  EXPECT_EQ(userResult, kOsInfoFailure);
  EXPECT_EQ(groupResult, kOsInfoFailure);
  EXPECT_STREQ(buffer, "untouched");
  std::string trace = test::readFile(tracePath);
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
    EXPECT_STREQ(buffer.data(), c.expected)
        << (c.localName ? c.localName : "(none)") << " " << c.id;
  }
  freeCodeSet(utf8);
}

}  // namespace
}  // namespace slm
