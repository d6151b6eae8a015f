#include "agent_core/cache/system_tuple.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/agent_sandbox.h"

namespace slm {
namespace {

using test::field;

TEST(PluginDatTuple, SixFieldsOfFiftyBytes) {
  char tuple[kSystemTupleSize];
  memset(tuple, 'Z', sizeof tuple);
  encodeSystemTuple("Linux", "2.4.20-8smp", "x86", "#1 SMP Thu Mar 13 17:45:54 EST 2003", tuple);
  std::string expected = field("1.1.1.51", 50) + field("Linux", 50) + field("2.4.20-8smp", 50) +
                         field("x86", 50) + field("2.4.20-8smp", 50) + field("YES", 50);
  EXPECT_EQ(std::string(tuple, sizeof tuple), expected);

  // Long texts keep 49 characters and a terminator; only an upper-case SMP marks the kernel.
  const std::string release(60, 'r');
  encodeSystemTuple("Linux", release.c_str(), "ia64", "#1 smp PREEMPT", tuple);
  expected = field("1.1.1.51", 50) + field("Linux", 50) + field(std::string(49, 'r'), 50) +
             field("ia64", 50) + field(std::string(49, 'r'), 50) + field("NOT", 50);
  EXPECT_EQ(std::string(tuple, sizeof tuple), expected);
}

}  // namespace
}  // namespace slm
