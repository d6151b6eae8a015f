#include "agent_core/install_command.h"

#include <gtest/gtest.h>

#include <string>

namespace slm {
namespace {

TEST(InstallCommand, SplitsOnBlanksAndKeepsOnlyADownloadedProgramWithPlainWords) {
  const char* names[] = {"install.sh", "kvdagent"};
  struct Case {
    std::string line;
    int result;
    std::string words;  // joined by "|" when accepted; else the index of the bad word
  } cases[] = {
      {"/t/q/install.sh -q", kInstallCommandAccepted, "/t/q/install.sh|-q"},
      {"  /t/q/kvdagent\t--to=/usr/sbin  a.b_c,d:e+f-9  ", kInstallCommandAccepted,
       "/t/q/kvdagent|--to=/usr/sbin|a.b_c,d:e+f-9"},
      {"/t/q/install.sh", kInstallCommandAccepted, "/t/q/install.sh"},
      {"/t/q/install.sh -q;id", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh a b$c", kInstallCommandBadWord, "2"},
      {"/t/q/install.sh \"x\"", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh a\nb", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh ~root", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh a*", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh \xc3\xa9", kInstallCommandBadWord, "1"},
      {"/t/q/install.sh;id", kInstallCommandNotDownloaded, "0"},
      {"/t/q/other", kInstallCommandNotDownloaded, "0"},
      {"/t/qinstall.sh", kInstallCommandNotDownloaded, "0"},
      {"/t/q/sub/install.sh", kInstallCommandNotDownloaded, "0"},
      {"install.sh", kInstallCommandNotDownloaded, "0"},
      {"/t/q/", kInstallCommandNotDownloaded, "0"},
      {" \t ", kInstallCommandNoProgram, "0"},
      {"/t/q/install.sh" + std::string(256, ' ') + "x", kInstallCommandAccepted,
       "/t/q/install.sh|x"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    InstallCommand command{};
    size_t bad = 99;
    EXPECT_EQ(splitInstallCommand(c.line.c_str(), "/t/q", names, 2, &command, &bad), c.result);
    if (c.result != kInstallCommandAccepted) {
      EXPECT_EQ(std::to_string(bad), c.words);
      continue;
    }
    std::string joined;
    for (size_t i = 0; i < command.count; ++i)
      joined += (i ? "|" : "") + std::string(command.argv[i]);
    EXPECT_EQ(joined, c.words);
    EXPECT_EQ(command.argv[command.count], nullptr);
  }
  // More words than a runner's argv holds, and more text than the buffer, name no program.
  std::string many = "/t/q/install.sh";
  for (int i = 0; i < 256; ++i) many += " a";
  InstallCommand command{};
  size_t bad = 0;
  EXPECT_EQ(splitInstallCommand(many.c_str(), "/t/q", names, 2, &command, &bad),
            kInstallCommandNoProgram);
  EXPECT_EQ(splitInstallCommand(std::string(600, 'a').c_str(), "/t/q", names, 2, &command, &bad),
            kInstallCommandNoProgram);
}

}  // namespace
}  // namespace slm
