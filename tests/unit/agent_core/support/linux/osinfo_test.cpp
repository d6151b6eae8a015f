#include "agent_core/support/linux/osinfo.h"

#include "agent_core/message/nls.h"

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "agent_core/support/unix_common.h"
#include "support/temp_root.h"

namespace slm {
namespace {

TEST(OsInfo, MachineFamilyGroupsEveryIntelMachineAsX86) {
  const std::pair<const char*, const char*> cases[] = {
      {"i686", "x86"}, {"x86_64", "x86"}, {"86", "x86"}, {"aarch64", "aarch64"}, {"", ""}};
  for (const auto& [machine, family] : cases) EXPECT_STREQ(machineFamily(machine), family);
}

TEST(OsInfo, SystemFiguresComeFromTheSystemAndAreCutToSize) {
  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  char machine[256] = "", system[256] = "", release[256] = "";
  ASSERT_EQ(getSystemEnvironment(machine, system, release, 4), kOsInfoSuccess);
  EXPECT_EQ(std::string(system), std::string(names.sysname).substr(0, 3));
  EXPECT_EQ(std::string(release), std::string(names.release).substr(0, 3));
  EXPECT_EQ(std::string(machine), std::string(machineFamily(names.machine)).substr(0, 3));
  char description[512];
  getOsDescription(description, sizeof(description));
  EXPECT_EQ(std::string(description), std::string(names.sysname) + " " + names.release);
  for (const auto& [size, expected] :
       {std::pair<size_t, const char*>{15, "Linux 6.1.0-18"}, {14, "Linux 6.1.0-1"}, {1, ""}}) {
    std::vector<char> buffer(size, '#');
    formatOsDescription("Linux", "6.1.0-18", buffer.data(), buffer.size());
    EXPECT_STREQ(buffer.data(), expected) << "size " << size;
  }
  char host[HOST_NAME_MAX + 1] = "", name[3] = "";
  ASSERT_EQ(gethostname(host, sizeof(host)), 0);
  ASSERT_EQ(getHostName(name, 3), kOsInfoSuccess);
  EXPECT_EQ(std::string(name), std::string(host).substr(0, 2));
  int32_t megabytes = -1, configured = -1, online = -1;
  ASSERT_EQ(getMemInfo(&megabytes), kOsInfoSuccess);
  EXPECT_GT(megabytes, 0);
  ASSERT_EQ(getCPUInfo(&configured, &online), kOsInfoSuccess);
  EXPECT_EQ(configured, sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(online, configured);
}

std::vector<std::string> probedDevices;

bool recordingProbe(const char* devicePath) {
  probedDevices.emplace_back(devicePath);
  return strchr("az", devicePath[7]) != nullptr;  // hda, hdz, sda and sdz answer
}

TEST(OsInfo, DiskWalkProbesIdeThenScsiDevicesAndCountsThoseThatAnswer) {
  probedDevices.clear();
  EXPECT_EQ(countDisks(recordingProbe), 4);
  ASSERT_EQ(probedDevices.size(), 52u);
  EXPECT_EQ(probedDevices[0] + probedDevices[25] + probedDevices[26] + probedDevices[51],
            "/dev/hda/dev/hdz/dev/sda/dev/sdz");
}

TEST(OsInfo, DiskCountUnderARootWithoutDisksIsZero) {
  test::TempDir root;
  std::string savedRoot = agentRoot();
  setAgentRoot(root.path().c_str());
  root.writeFile("dev/hda", "not a disk");  // opens, but refuses the geometry request
  int32_t count = -1;
  EXPECT_EQ(getDiskInfo(&count), geteuid() == 0 ? kOsInfoSuccess : kOsInfoFailure);
  EXPECT_EQ(count, geteuid() == 0 ? 0 : -1);
  EXPECT_EQ(GetNumDisks(&count), kOsInfoSuccess);
  EXPECT_EQ(count, 0);
  setAgentRoot(savedRoot.c_str());
}

TEST(OsInfo, AccountNamesComeFromTheDatabasesOrFallBackToTheId) {
  char name[64] = "";
  ASSERT_EQ(getUserName(getuid(), name, sizeof(name)), kOsInfoSuccess);
  const passwd* user = getpwuid(getuid());
  EXPECT_STREQ(name, user != nullptr ? user->pw_name : std::to_string(getuid()).c_str());
  ASSERT_EQ(getUserGroup(54321, name, sizeof(name)), kOsInfoSuccess);
  EXPECT_STREQ(name, "54321");
  char buffer[16] = "untouched";
  EXPECT_EQ(getUserName(54321, buffer, 9), kOsInfoFailure);
  EXPECT_EQ(getUserGroup(54321, buffer, 9), kOsInfoFailure);
  EXPECT_STREQ(buffer, "untouched");
  EXPECT_EQ(getUserName(54321, buffer, 10), kOsInfoSuccess);
  EXPECT_STREQ(buffer, "54321");
}

TEST(OsInfo, AccountNameFormatting) {
  const struct {
    const char* localName;
    int32_t id;
    size_t size;
    const char* expected;
  } cases[] = {
      {"root", 0, 32, "root"},
      {nullptr, -2, 32, "-2"},     // ids above INT_MAX print as signed decimal
      {"\xff\xfe", 77, 32, "77"},  // not a text of the local code set (UTF-8 here)
      {"abcdefghijklmnop", 5, 10, "abcdefghi"},
  };
  CodeSet* utf8 = createCodeSet("utf-8");
  ASSERT_NE(utf8, nullptr);
  setDefaultCodeSet(utf8);
  for (const auto& c : cases) {
    std::vector<char> buffer(c.size, '#');
    formatAccountName(c.localName, c.id, buffer.data(), buffer.size());
    EXPECT_STREQ(buffer.data(), c.expected) << c.id;
  }
  freeCodeSet(utf8);
}

}  // namespace
}  // namespace slm
