#include "service/unix/base_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <functional>
#include <string>

#include "agent_core/support/bytes.h"
#include "support/temp_root.h"

namespace slm {
namespace {

// How many entries of `dir` were moved aside from "qsam".
int asideCount(const std::string& dir) {
  int count = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* entry = readdir(d)) {
      count += std::string(entry->d_name).rfind("qsam.aside-", 0) == 0;
    }
    closedir(d);
  }
  return count;
}

TEST(TemporaryDirectory, OnlyARootOnlyDirectoryIsUsedAndAnythingElseIsMovedAside) {
  test::TempDir root;
  const std::string qsam = root.file("qsam");
  copyBounded(tempDir, kPathSize - 1, qsam.c_str());
  const std::string target = root.file("target");
  root.makeDirs("target");
  struct stat before;
  ASSERT_EQ(stat(target.c_str(), &before), 0);
  struct Case {
    const char* what;
    std::function<void()> plant;
    int moved;
  } cases[] = {
      {"missing", [] {}, 0},
      {"already right", [&] { ASSERT_EQ(mkdir(qsam.c_str(), 0700), 0); }, 0},
      {"mode 0755",
       [&] {
         ASSERT_EQ(mkdir(qsam.c_str(), 0700), 0);
         ASSERT_EQ(chmod(qsam.c_str(), 0755), 0);
       },
       1},
      {"sticky 01700",
       [&] {
         ASSERT_EQ(mkdir(qsam.c_str(), 0700), 0);
         ASSERT_EQ(chmod(qsam.c_str(), 01700), 0);
       },
       1},
      {"another owner",
       [&] {
         ASSERT_EQ(mkdir(qsam.c_str(), 0700), 0);
         ASSERT_EQ(chown(qsam.c_str(), 65534, 65534), 0);
       },
       1},
      {"a link to a directory", [&] { ASSERT_EQ(symlink(target.c_str(), qsam.c_str()), 0); }, 1},
      {"a file", [&] { root.writeFile("qsam", "x"); }, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (std::string(c.what) == "another owner" && geteuid() != 0) continue;
    ASSERT_EQ(std::system(("rm -rf '" + root.path() + "'/qsam*").c_str()), 0);
    c.plant();
    EXPECT_EQ(prepareTemporaryDirectory(), kTempDirReady);
    struct stat status;
    ASSERT_EQ(lstat(qsam.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(asideCount(root.path()), c.moved);
  }
  // What a link pointed to is never touched.
  struct stat after;
  ASSERT_EQ(stat(target.c_str(), &after), 0);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_nlink, 2u);  // still empty: no directory was made in it
  tempDir[0] = '\0';
}

}  // namespace
}  // namespace slm
