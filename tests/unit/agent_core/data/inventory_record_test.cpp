#include "agent_core/data/inventory_record.h"

#include <gtest/gtest.h>

#include <string>

namespace slm {
namespace {

TEST(InventoryRecord, ControlBytesOfANameBecomeQuestionMarksAndNothingElseChanges) {
  struct Case {
    std::string name;
    std::string sent;
  };
  const Case cases[] = {
      {"app", "app"},
      {"caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac|*%s\\n",
       "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac|*%s\\n"},
      {"evil\r\n  OK - Agent stopped", "evil??  OK - Agent stopped"},
      {"a|b\r\nc|d\r\n", "a|b??c|d??"},
      {"\x01\x1f\x20\x7e\x7f\x80\xff", "?? ~?\x80\xff"},
      {"", ""},
  };
  for (const Case& c : cases) {
    char text[64];
    snprintf(text, sizeof text, "%s", c.name.c_str());
    replaceControlBytes(text);
    EXPECT_EQ(std::string(text), c.sent) << c.name;
  }
}

}  // namespace
}  // namespace slm
