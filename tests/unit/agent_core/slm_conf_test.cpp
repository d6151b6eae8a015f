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
  struct Case {
    const char* line;
    const char* key;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"# agentid=99\n", "agentid", std::nullopt},  // a "#" in the first column is a comment
      {"  #agentid=1\n", "agentid", "1"},           // after blanks it is not
      {"\t #port=8\n", "port", "8"},
      {"x#port=8\n", "port", std::nullopt},  // after text it is part of the text
      {"path=/x#port=8\n", "path", "/x#port=8"},
      {"path=/x#port=8\n", "port", std::nullopt},
      {"xagentid=5\n", "agentid", std::nullopt},
      {"divisionid=\"7\"\n", "divisionid", "\"7\""},  // values are not unquoted
      {"proxy_port=8080\n", "proxy_port", "8080"},    // not taken for "proxy" or "port"
      {"proxy_port=8080\n", "port", std::nullopt},
      {"path = /srv port x\n", "path", std::nullopt},  // "port" matches first, after the "="
      {"port 80\n", "port", std::nullopt},             // no "="
      {"tracelevel=1\n", "trace_level", std::nullopt},
      {"unknown=value\n", "unknown", std::nullopt},
      {"customer =  ACME  Corp \t\r\n", "customer", "ACME  Corp"},  // inner blanks kept
      {"server=host=x\n", "server", "host=x"},                      // only the first "=" separates
      {"trace_size=5000", "trace_size", "5000"},                    // last line without a line end
      {"agentid=1\n", "AgentId", std::nullopt},                     // keys match case-sensitively
  };
  for (const Case& c : cases) {
    ASSERT_EQ(load(c.line), kConfigurationLoaded) << c.line;
    EXPECT_EQ(value(c.key), c.expected) << c.line << " " << c.key;
    deleteConfigurationVariables();
  }
}

TEST_F(Configuration, EmptyValueStopsTheLoadAtItsLine) {
  EXPECT_EQ(load("tag=a\ncustomer = \t\r\nagentid=1\n"), kConfigurationEmptyValue);
  EXPECT_EQ(value("tag"), "a");
  EXPECT_FALSE(value("agentid"));
  // Values of nothing but carriage returns, blanks and tabs are empty too once trimmed.
  const std::string blankValues[] = {"tag=\r\t\n", "tag = \r \r\n", std::string("tag=\r\0x\n", 8)};
  for (const std::string& line : blankValues) {
    deleteConfigurationVariables();
    EXPECT_EQ(load(line), kConfigurationEmptyValue);
    EXPECT_FALSE(value("tag"));
  }
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
