#include "service/unix/sys_service.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace slm {
namespace {

// Whether the process may raise its hard limits.
bool mayRaiseHardLimits() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  return syscall(SYS_capget, &header, data) == 0 &&
         (data[0].effective & (1u << CAP_SYS_RESOURCE)) != 0;
}

// The limits are the test process's own, set before each case and restored at the end (a lowered
// hard limit can be raised again by a privileged process only, so those cases need one).
TEST(SysService, DescriptorLimitIsRaisedAndNeverLowered) {
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const bool privileged = mayRaiseHardLimits();
  struct Case {
    rlim_t soft, hard;
    rlim_t raisedSoft, raisedHard;
    bool needsPrivilege;
  };
  const Case cases[] = {
      {100, saved.rlim_max, saved.rlim_max, saved.rlim_max, false},
      {100, 2000, 65536, 65536, true},
      {100, 100000, 100000, 100000, true},
      {70000, 70000, 70000, 70000, true},
  };
  for (const Case& c : cases) {
    if (c.needsPrivilege && !privileged) continue;
    const struct rlimit set = {c.soft, c.hard};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &set), 0) << c.soft << " " << c.hard;
    EXPECT_EQ(raiseDescriptorLimit(), 0);
    struct rlimit now;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
    EXPECT_EQ(now.rlim_cur, c.raisedSoft) << c.soft << " " << c.hard;
    EXPECT_EQ(now.rlim_max, c.raisedHard) << c.soft << " " << c.hard;
  }
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

}  // namespace
}  // namespace slm
