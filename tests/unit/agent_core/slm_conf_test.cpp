#include "agent_core/slm_conf.h"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>
#include <utility>

#include "support/temp_root.h"

namespace slm {
namespace {

class Configuration : public ::testing::Test {
 protected:
  void TearDown() override { deleteConfigurationVariables(); }

  int load(const std::string& text) {
    dir_.writeFile("kvdagent.ini", text);
    return loadConfigurationFile(dir_.file("kvdagent.ini").c_str());
  }

  static std::optional<std::string> value(const char* key, size_t size = 512) {
    std::string buffer(size, 'X');
    int result = getConfigurationValue(key, buffer.data(), size);
    if (result != kConfigurationValueFound) return std::nullopt;
    EXPECT_EQ(buffer[size - 1], '\0') << key;
    return std::string(buffer.c_str());
  }

  test::TempDir dir_;
};

TEST_F(Configuration, ReadsKeysAndSkipsWhatIsNotAKey) {
  ASSERT_EQ(load("# agentid=99\n  #agentid=1\nxagentid=5\ndivisionid=\"7\"\nproxy_port=8080\n"
                 "path = /srv port x\nport 80\nunknown=value\ncustomer =  ACME  Corp \t\r\n"
                 "server=host=x\ntrace_size=5000"),
            kConfigurationLoaded);
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"agentid", "1"},            // a "#" after blanks is no comment
      {"divisionid", "\"7\""},     // values are not unquoted
      {"proxy_port", "8080"},      // not taken for "proxy" or "port"
      {"port", std::nullopt},      // "port 80" has no "="; in the path line it follows the "="
      {"customer", "ACME  Corp"},  // inner blanks kept, trailing blanks, tab and CR dropped
      {"server", "host=x"},        // only the first "=" separates
      {"trace_size", "5000"},      // last line without a line end
      {"AgentId", std::nullopt},   // keys match case-sensitively
      {"unknown", std::nullopt},
  };
  for (const auto& [key, expected] : cases) EXPECT_EQ(value(key), expected) << key;
}

TEST_F(Configuration, EmptyValueStopsTheLoadAtItsLine) {
  EXPECT_EQ(load("tag=a\ncustomer = \t\r\nagentid=1\n"), kConfigurationEmptyValue);
  EXPECT_EQ(value("tag"), "a");
  EXPECT_FALSE(value("agentid"));
  deleteConfigurationVariables();
  EXPECT_EQ(load(""), kConfigurationLoaded);  // an empty file is no error
}

TEST_F(Configuration, DuplicateKeyUnloadsEverythingAndASecondLoadWaitsForDelete) {
  ASSERT_EQ(load("tag=a\nagentid=12\nagentid=12\n"), kConfigurationRefused);
  EXPECT_FALSE(value("tag"));
  // Nothing is loaded, so a new load needs no delete first; a second load does.
  ASSERT_EQ(load("tag=first\n"), kConfigurationLoaded);
  EXPECT_EQ(load("tag=second\n"), kConfigurationRefused);
  EXPECT_EQ(loadConfigurationFile(dir_.file("missing.ini").c_str()), kConfigurationCannotOpen);
  EXPECT_EQ(value("tag"), "first");
  deleteConfigurationVariables();
  EXPECT_EQ(load("tag=second\n"), kConfigurationLoaded);
  EXPECT_EQ(value("tag"), "second");
}

TEST_F(Configuration, BoundsValuesLinesAndBuffers) {
  std::string longComment = "#" + std::string(1030, 'c');
  ASSERT_EQ(load("customer=" + std::string(300, 'v') + "\n" +
                 // The reader takes 1,023 characters at a time, so the tail of this comment is
                 // read as a line of its own, and it names a key.
                 longComment + " tag=T\n" + "server=" + std::string(196, 's') + "x   yz\n"),
            kConfigurationLoaded);
  EXPECT_EQ(value("customer"), std::string(200, 'v'));
  EXPECT_EQ(value("customer", 15), std::string(14, 'v'));
  EXPECT_EQ(value("tag"), "T");
  // Cut to 200 characters first, then the trailing blanks of the cut text go.
  EXPECT_EQ(value("server"), std::string(196, 's') + "x");
}

TEST(ConfigurationIds, ReadsSignedDecimalsWithoutOverflowCheck) {
  const std::pair<const char*, int64_t> cases[] = {{" \t+7 \n", 7},
                                                   {"-9223372036854775808", INT64_MIN},
                                                   {"9223372036854775808", INT64_MIN},
                                                   {"12a", 0},
                                                   {"", 0}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(aToSlmInt64(text), expected) << text;
}

}  // namespace
}  // namespace slm
