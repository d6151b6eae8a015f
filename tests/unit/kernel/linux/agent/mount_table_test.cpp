#include "kernel/linux/agent/mount_table.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <string>
#include <vector>

namespace slm {
namespace {

TEST(MountTable, ReadsTheKernelsLinesAndSkipsDamagedOnes) {
  const std::string text =
      "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
      // Optional fields, an escaped blank in the mount point, a root below the file system's.
      "44 27 0:39 /sub\\134dir /mnt/my\\040disk rw master:3 shared:7 - tmpfs tmpfs rw\n"
      "no fields here\n"
      "45 27 0:41 / /mnt/x rw\n"                     // no separator
      "46 27 zero / /mnt/y rw - ext4 /dev/vdb rw\n"  // no device numbers
      "47 27 0:50 / /var/lib/c/merged rw - overlay overlay "
      "rw,lowerdir=/l/a:/l/b\\072c::/l/data,upperdir=/u/d\\054e,workdir=/w\n"
      "48 27 0:51 / /m rw - overlay overlay rw,lowerdir+=/one,datadir+=/two,upperdir=/up";
  const std::vector<MountEntry> mounts = parseMountTable(text);
  ASSERT_EQ(mounts.size(), 4u);
  EXPECT_EQ(mounts[0].id, 27);
  EXPECT_EQ(mounts[0].device, makedev(254, 0));
  EXPECT_EQ(mounts[0].root, "/");
  EXPECT_EQ(mounts[0].mountPoint, "/");
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_TRUE(mounts[0].layers.empty());
  EXPECT_EQ(mounts[1].id, 44);
  EXPECT_EQ(mounts[1].device, makedev(0, 39));
  EXPECT_EQ(mounts[1].root, "/sub\\dir");
  EXPECT_EQ(mounts[1].mountPoint, "/mnt/my disk");
  EXPECT_EQ(mounts[1].type, "tmpfs");
  EXPECT_EQ(mounts[2].mountPoint, "/var/lib/c/merged");
  EXPECT_EQ(mounts[2].layers, (std::vector<std::string>{"/l/a", "/l/b:c", "/l/data", "/u/d,e"}));
  EXPECT_EQ(mounts[3].layers, (std::vector<std::string>{"/one", "/two", "/up"}));
}

TEST(MountTable, PathsWithinADirectoryGoByWholeComponents) {
  struct Case {
    const char* path;
    const char* directory;
    bool within;
    const char* below;
  };
  const Case cases[] = {
      {"/a/b", "/a", true, "/b"},  {"/a", "/a", true, ""},       {"/ab", "/a", false, ""},
      {"/a/b", "/", true, "/a/b"}, {"/", "/", true, ""},         {"/b", "/a", false, ""},
      {"/a", "/a/b", false, ""},   {"relative", "/", false, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(pathWithin(c.path, c.directory), c.within) << c.path << " in " << c.directory;
    if (c.within) {
      EXPECT_EQ(pathBelow(c.path, c.directory), c.below) << c.path;
    }
  }
}

}  // namespace
}  // namespace slm
