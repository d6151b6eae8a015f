#include "agent_core/slm_conf.h"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>

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
    if (getConfigurationValue(key, buffer.data(), size) != kConfigurationValueFound) {
      return std::nullopt;
    }
    EXPECT_EQ(buffer[size - 1], '\0') << key;
    return std::string(buffer.c_str());
  }

  test::TempDir dir_;
};

TEST_F(Configuration, ReadsKeysAndSkipsWhatIsNotAKey) {
  ASSERT_EQ(load("# agentid=99\n"
                 "  #agentid=1\n"
                 "xagentid=5\n"
                 "divisionid=\"7\"\n"
                 "proxy_port=8080\n"
                 "path = /srv port x\n"
                 "tracelevel=3\n"
                 "port 80\n"
                 "unknown=value\n"
                 "customer =  ACME  Corp \t\r\n"
                 "tag\t=\tlower\n"
                 "server=host=x\n"
                 "trace_size=5000"),
            kConfigurationLoaded);
  struct Case {
    const char* key;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"agentid", "1"},         // a "#" after blanks is no comment
      {"divisionid", "\"7\""},  // values are not unquoted
      {"proxy_port", "8080"},   // not taken for "proxy" or "port"
      {"proxy", std::nullopt},  //
      {"port", std::nullopt},   // "port 80" has no "="; in the path line it follows the "="
      {"path", std::nullopt},   //
      {"trace_level", std::nullopt},
      {"customer", "ACME  Corp"},  // inner blanks kept, trailing blanks, tab and CR dropped
      {"tag", "lower"},
      {"server", "host=x"},       // only the first "=" separates
      {"trace_size", "5000"},     // last line without a line end
      {"AgentId", std::nullopt},  // keys match case-sensitively
      {"unknown", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(value(c.key), c.expected) << c.key;
}

TEST_F(Configuration, EmptyValueStopsTheLoadAtItsLine) {
  const char* texts[] = {"tag=a\ncustomer =\nagentid=1\n", "tag=a\ncustomer = \t\r\nagentid=1\n",
                         "tag=a\ncustomer = \t"};
  for (const char* text : texts) {
    EXPECT_EQ(load(text), kConfigurationEmptyValue) << text;
    EXPECT_EQ(value("tag"), "a") << text;
    EXPECT_FALSE(value("agentid")) << text;
    deleteConfigurationVariables();
  }
  EXPECT_EQ(load(""), kConfigurationLoaded);  // an empty file is no error
}

TEST_F(Configuration, DuplicateKeyUnloadsEverythingAndASecondLoadWaitsForDelete) {
  ASSERT_EQ(load("tag=a\nagentid=12\nagentid=12\n"), kConfigurationRefused);
  EXPECT_FALSE(value("tag"));
  EXPECT_FALSE(value("agentid"));
  // Nothing is loaded, so a new load needs no delete first; a second load does.
  ASSERT_EQ(load("tag=first\n"), kConfigurationLoaded);
  EXPECT_EQ(load("tag=second\n"), kConfigurationRefused);
  EXPECT_EQ(loadConfigurationFile(dir_.file("missing.ini").c_str()), kConfigurationCannotOpen);
  EXPECT_EQ(value("tag"), "first");
  deleteConfigurationVariables();
  EXPECT_FALSE(value("tag"));
  EXPECT_EQ(load("tag=second\n"), kConfigurationLoaded);
  EXPECT_EQ(value("tag"), "second");
}

TEST_F(Configuration, BoundsValuesLinesAndBuffers) {
  std::string longValue(300, 'v');
  std::string longComment = "#" + std::string(1030, 'c');
  ASSERT_EQ(load("customer=" + longValue + "\n" +
                 // The reader takes 1,023 characters at a time, so the tail of this comment is
                 // read as a line of its own, and it names a key.
                 longComment + " tag=T\n" + "server=" + std::string(196, 's') + "x   yz\n"),
            kConfigurationLoaded);
  EXPECT_EQ(value("customer"), std::string(200, 'v'));
  EXPECT_EQ(value("customer", 15), std::string(14, 'v'));
  EXPECT_EQ(value("customer", 1), "");
  EXPECT_EQ(value("tag"), "T");
  // Cut to 200 characters first, then the trailing blanks of the cut text go.
  EXPECT_EQ(value("server"), std::string(196, 's') + "x");
}

TEST(ConfigurationIds, ReadsSignedDecimals) {
  struct Case {
    const char* text;
    int64_t expected;
  };
  const Case cases[] = {{"42", 42},   {" \t+7 \n", 7},
                        {"-15", -15}, {"9223372036854775807", INT64_MAX},
                        {"0012", 12}, {"-9223372036854775808", INT64_MIN},
                        {"12a", 0},   {"9223372036854775808", INT64_MIN},  // wraps: no check
                        {"a12", 0},   {"1 2", 0},
                        {"--1", 0},   {"", 0},
                        {"-", 0}};
  for (const Case& c : cases) EXPECT_EQ(aToSlmInt64(c.text), c.expected) << c.text;
}

}  // namespace
}  // namespace slm
