#include "agent_core/install_unit.h"

#include <gtest/gtest.h>

namespace slm {
namespace {

TEST(InstallUnit, TellsAServiceCgroupFromAnyOther) {
  const struct {
    const char* cgroup;
    bool service;
  } cases[] = {
      {"0::/system.slice/kvdagent.service\n", true},
      {"0::/system.slice/kvdagent.service", true},  // no line feed at the end
      // Hybrid: the systemd hierarchy's line counts, whatever the unified one says.
      {"3:cpu:/\n1:name=systemd:/system.slice/kvdagent.service\n0::/\n", true},
      {"1:name=systemd:/user.slice/user-0.slice/session-2.scope\n0::/x.service\n", false},
      {"0::/system.slice/kvdagent-update-1700000000.service\n", true},
      // A login session, a user's own manager, a container's payload, the root.
      {"0::/user.slice/user-0.slice/session-4.scope\n", false},
      {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/run-r1.scope\n", false},
      {"0::/system.slice/kvdagent.service/payload\n", false},
      {"0::/\n", false},
      {"0::/.service\n", false},
      // Controllers of version 1 alone are not systemd's.
      {"4:memory:/system.slice/kvdagent.service\n", false},
      {"10::/system.slice/kvdagent.service\n", false},
      {"no colon at all\n", false},
      {"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(cgroupIsService(c.cgroup), c.service) << c.cgroup;
}

}  // namespace
}  // namespace slm
