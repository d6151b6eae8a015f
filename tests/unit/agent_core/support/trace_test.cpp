#include "agent_core/support/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_root.h"

namespace slm {
namespace {

using test::fileExists;
using test::readFile;

class Trace : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("traceagt.log");
    startTrace(path_.c_str());
  }
  void TearDown() override {
    stopTrace();
    setTraceLevel(-1);
  }

  std::string content() const { return readFile(path_); }

  test::TempDir dir_;
  std::string path_;
};

TEST_F(Trace, WritesHeaderAndIndentedMessage) {
  outputTrace("agent/x.cpp", 42, "OK - %s %d", "value", 7);
  static const std::regex kMessage(
      "File: agent/x\\.cpp Line: 42 Time: (Mon|Tue|Wed|Thu|Fri|Sat|Sun) "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4} "
      "Tid: \\d+\n  OK - value 7\n");
  EXPECT_TRUE(std::regex_match(content(), kMessage)) << content();
}

TEST_F(Trace, SpellsOutControlBytesSoNoMessageForgesALine) {
  struct Case {
    std::string argument;
    std::string written;
  };
  const std::string longName = std::string(1500, 'n') + "\n" + std::string(500, 'm');
  const Case cases[] = {
      {"plain /usr/bin/app \xc3\xa9t\xc3\xa9 50% a\\nb",
       "plain /usr/bin/app \xc3\xa9t\xc3\xa9 50% a\\nb"},
      {"x\n  OK - Agent stopped", "x\\n  OK - Agent stopped"},
      {"cr\r\nlf", "cr\\r\\nlf"},
      {"tab\there", "tab\\there"},
      {"\x1b[31mred\x7f\x01", "\\x1b[31mred\\x7f\\x01"},
      {longName, std::string(1500, 'n') + "\\n" + std::string(500, 'm')},
  };
  for (const Case& c : cases) {
    startTrace(path_.c_str());
    outputTrace("f", 1, "OK - [%.*s]", static_cast<int>(c.argument.size()), c.argument.data());
    const std::string text = content();
    // The header line, then the message on one line.
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
    EXPECT_EQ(text.substr(text.find('\n') + 1), "  OK - [" + c.written + "]\n");
  }
}

TEST_F(Trace, LevelsGateMessagesAndOutOfRangeLevelsAreIgnored) {
  EXPECT_TRUE(traceActive(0));
  EXPECT_FALSE(traceActive(1));  // a start resets the level to 0
  setTraceLevel(2);
  EXPECT_TRUE(traceActive(2));
  EXPECT_FALSE(traceActive(3));
  setTraceLevel(4);
  setTraceLevel(-2);
  EXPECT_TRUE(traceActive(2));
  EXPECT_FALSE(traceActive(3));

  setTraceLevel(-1);
  EXPECT_FALSE(traceActive(0));
  outputTrace("f", 1, "lost");
  SLM_TRACE(0, "lost too");
  EXPECT_EQ(content(), "");
}

TEST_F(Trace, SizeBoundsAreExclusiveAndReported) {
  // Each row sets two sizes in turn; a refused size keeps the limit already in force.
  struct Case {
    int32_t first, second, inForce;
  } cases[] = {{5000, 5000, 2000000},
               {5001, 5001, 5001},
               {5001, 100000000, 5001},
               {99999999, 99999999, 99999999},
               {6000, -1, 6000}};
  for (const Case& c : cases) {
    startTrace(path_.c_str());
    setTraceLevel(1);
    setTraceSize(c.first);
    setTraceSize(c.second);
    std::string last =
        "Trace size (bytes): " + std::to_string(c.inForce) + " (min: 5000, max: 100000000)\n";
    std::string text = content();
    EXPECT_NE(text.find("File:  Line: 0 "), std::string::npos) << text;
    EXPECT_EQ(text.rfind(last), text.size() - last.size()) << c.second << "\n" << text;
  }
}

TEST_F(Trace, RollsOverBeforeTheMessageAfterTheLimit) {
  setTraceSize(6000);
  std::string big(7000, 'x');
  outputTrace("f", 1, "%s", big.c_str());
  // The message that passes the limit is written whole.
  EXPECT_NE(content().find(big + "\n"), std::string::npos);
  EXPECT_FALSE(fileExists(path_ + ".bck"));

  outputTrace("f", 2, "after");
  EXPECT_TRUE(fileExists(path_ + ".bck"));
  EXPECT_NE(readFile(path_ + ".bck").find(big), std::string::npos);
  EXPECT_EQ(content().find(big), std::string::npos);
  EXPECT_NE(content().find("  after\n"), std::string::npos);

  // Only one generation of backup is kept.
  outputTrace("f", 3, "%s", big.c_str());
  outputTrace("f", 4, "third");
  std::string backup = readFile(path_ + ".bck");
  EXPECT_EQ(backup.find("Line: 1 "), std::string::npos);
  EXPECT_NE(backup.find("Line: 3 "), std::string::npos);
  EXPECT_NE(content().find("third"), std::string::npos);
}

TEST_F(Trace, RollsOverOnceThePositionReachesTheLimit) {
  for (int beyondLimit : {-1, 0}) {
    startTrace(path_.c_str());
    remove((path_ + ".bck").c_str());
    setTraceSize(6000);
    outputTrace("f", 1, "a");
    // Every message of this line and thread carries the same header, so the first one measures it.
    long first = static_cast<long>(content().size());
    long header = first - 2;
    outputTrace("f", 1, "%s", std::string(6000 + beyondLimit - first - header - 1, 'x').c_str());
    ASSERT_EQ(static_cast<long>(content().size()), 6000 + beyondLimit);
    outputTrace("f", 1, "next");
    EXPECT_EQ(fileExists(path_ + ".bck"), beyondLimit == 0) << beyondLimit;
  }
}

TEST_F(Trace, StartingAgainEmptiesTheFile) {
  outputTrace("f", 1, "first run");
  startTrace(path_.c_str());
  EXPECT_EQ(content(), "");
}

TEST_F(Trace, StoppedTraceSwallowsWritesAndRefusesRestart) {
  outputTrace("f", 1, "before");
  stopTrace();
  outputTrace("f", 2, "after stop");
  EXPECT_EQ(restartTrace(), -1);
  std::string text = content();
  EXPECT_NE(text.find("before"), std::string::npos);
  EXPECT_EQ(text.find("after stop"), std::string::npos);
}

TEST_F(Trace, RestartReopensATraceTurnedOff) {
  outputTrace("f", 1, "before");
  setTraceLevel(-1);
  EXPECT_EQ(restartTrace(), 1);
  EXPECT_EQ(content(), "");
}

TEST_F(Trace, RestartReportsTheOpenError) {
  startTrace(dir_.file("missing/dir/trace.log").c_str());
  EXPECT_FALSE(traceActive(0));
  EXPECT_EQ(restartTrace(), ENOENT);
}

TEST_F(Trace, ConcurrentMessagesStayContiguous) {
  setTraceLevel(3);
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < kMessages; ++i) SLM_TRACE(2, "writer %d message %d end", t, i);
    });
  }
  for (std::thread& w : writers) w.join();
  static const std::regex kLine("  writer \\d message \\d+ end");
  std::string text = content();
  size_t headers = 0;
  size_t pos = 0;
  while ((pos = text.find("File: ", pos)) != std::string::npos) {
    size_t headerEnd = text.find('\n', pos);
    size_t lineEnd = text.find('\n', headerEnd + 1);
    ASSERT_NE(lineEnd, std::string::npos);
    EXPECT_TRUE(std::regex_match(text.substr(headerEnd + 1, lineEnd - headerEnd - 1), kLine));
    ++headers;
    pos = lineEnd;
  }
  EXPECT_EQ(headers, static_cast<size_t>(kThreads * kMessages));
}

}  // namespace
}  // namespace slm
