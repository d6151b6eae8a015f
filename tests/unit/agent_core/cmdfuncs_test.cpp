#include "agent_core/cmdfuncs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/uat.h"
#include "agent_core/cmdsthr.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/security_settings.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/program_runner.h"
#include "service/threads.h"
#include "service/unix/base_dir.h"
#include "support/service_sandbox.h"
#include "support/site_signer.h"

namespace slm {
namespace {

constexpr AgentTime kNow = 1700000000;

// What the agent ran (each argv joined by blanks), the environment of the last one, and the
// status the runs answer with.
std::vector<std::string> shellLines;
std::vector<std::string> lastEnvironment;
int shellStatus = 0;
int recordingShell(const char* const* argv, const char* const* environment) {
  std::string line;
  for (const char* const* word = argv; *word != nullptr; ++word) {
    line += (line.empty() ? "" : " ") + std::string(*word);
  }
  shellLines.push_back(line);
  lastEnvironment.clear();
  for (const char* const* entry = environment; *entry != nullptr; ++entry) {
    lastEnvironment.push_back(*entry);
  }
  return shellStatus;
}

// The agent's caches and command queue as the commands thread finds them, against the
// reference server.
class Commands : public test::ServiceSandbox {
 protected:
  void SetUp() override {
    ServiceSandbox::SetUp();
    root_.makeDirs("var/qsam/log");
    ASSERT_EQ(createComponentsCache(), kLatOk);
    ASSERT_EQ(createUATCache(), kUatOk);
    ASSERT_EQ(slmAgentInitCommands(), kQueueOk);
    ASSERT_EQ(setAgentIntValue(kAgentPluggedIn, 1), kAgentValueOk);
    shellLines.clear();
    shellStatus = 0;
    setProgramRunner(recordingShell);
  }
  void TearDown() override {
    setProgramRunner(nullptr);
    setSecuritySettings(SecuritySettings{});
    slmAgentCleanCommands();
    deleteUATCache();
    deleteComponentsCache();
    ServiceSandbox::TearDown();
  }
  static int64_t plugged() {
    int64_t value = -1;
    EXPECT_EQ(getAgentIntValue(kAgentPluggedIn, &value), kAgentValueOk);
    return value;
  }
  static void addUnknown(const char* name, int64_t size, const char* path) {
    UnknownFileEntry entry{};
    strcpy(entry.name, name);
    strcpy(entry.path, path);
    entry.size = size;
    entry.lastUpdateTime = kNow - 5;
    ASSERT_EQ(addUnknownFileEntry(&entry), kUatOk);
  }
  std::string uploadedNames() const {
    std::string body = server_->lastRequestBody("7");
    std::string names;
    for (size_t at = body.find("<files>\r\n"); at != std::string::npos;) {
      at = body.find("\r\n", at) + 2;
      if (body.compare(at, 8, "</files>") == 0) break;
      names += (names.empty() ? "" : " ") + body.substr(at, body.find('|', at) - at);
    }
    return names;
  }

  Command command_{nullptr, kNow, 0, 86400};
};

TEST_F(Commands, CatalogIsMergedAndATrailerAloneIsNoCatalog) {
  // More files than one batch of the merge takes.
  serve(R"({"require_plugin": false, "catalog": {"update_time": 1700000000000,
      "components": [[12, 1, 0, 2]], "files": [["App.exe", 4096, 1, 2, [12]]],
      "generate": {"files": 10000, "components": 3}}})");
  EXPECT_EQ(slmAgentDownloadCatalogCommand(&command_), kCommandRequeueToo);
  EXPECT_EQ(getLATLastUpdateTime(), 1700000000000);
  EXPECT_TRUE(traced("OK - Catalog stored, update time: 1700000000000"));
  EXPECT_EQ(getCatalogFilesNumber(), 10001);
  EXPECT_EQ(getCatalogComponentsNumber(), 4);
  FileRecord key{}, found{};
  for (const auto& [name, size] : {std::pair{"app.exe", 4096}, {"GEN0009999.BIN", 10999}}) {
    strcpy(key.name, name);
    key.size = size;
    EXPECT_EQ(findFileEntry(&key, &found, nullptr, nullptr), kLatOk) << name;
  }

  // A trailer alone is no catalog, whatever result it carries: the agent stays plugged in.
  serve(R"({"services": {"catalog": {"result": -1}}})");
  EXPECT_EQ(slmAgentDownloadCatalogCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Catalog not received"));
  EXPECT_EQ(plugged(), 1);
  EXPECT_EQ(getLATLastUpdateTime(), 1700000000000);
  expectConforming();
}

TEST_F(Commands, UploadSendsWhatIsOnDiskOnceAndRetriesSoonAfterAFailure) {
  root_.makeDirs("opt/app");
  root_.writeFile("opt/app/kept", "x");
  addUnknown("kept", 1, "/opt/app");
  addUnknown("gone", 2, "/opt/app");
  serve(R"({"require_plugin": false, "services": {"upload": {"status": 1, "count": 1}}})");

  command_ = Command{slmAgentUploadFilesCommand, kNow, kNow + 20, 0};
  EXPECT_EQ(slmAgentUploadFilesCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Upload failed"));
  EXPECT_EQ(command_.start, kNow + 10);
  EXPECT_EQ(command_.end, kNow + 30);
  EXPECT_EQ(getUnknownFilesNumber(), 1);  // the vanished file is dropped on the way

  clock_.advance(10);
  EXPECT_EQ(slmAgentUploadFilesCommand(&command_), kCommandDone);
  EXPECT_EQ(uploadedNames(), "kept");
  EXPECT_EQ(getLastUploadTime(), kNow + 10);
  EXPECT_EQ(getNumberOfUploads(), 1);
  EXPECT_EQ(slmAgentUploadFilesCommand(&command_), kCommandDone);
  EXPECT_TRUE(traced("OK - Upload uneeded"));
  expectConforming();
}

TEST_F(Commands, TopologyFillsBothScopes) {
  serve(R"({"require_plugin": false, "topology": {"division": [["127.0.0.1", "/", "self"],
      "d2|/p|8080"], "enterprise": ["e1|/e|80"]}})");
  EXPECT_EQ(slmAgentDownloadTopologyCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("OK - Topology updated: 2 division server(s), 1 enterprise server(s)"));
  ASSERT_EQ(readLockSrvsCache(), kSrvsOk);
  EXPECT_EQ(countScopeServers(kScopeDivision), 1);  // the preferred server stays where it is
  EXPECT_EQ(countScopeServers(kScopeEnterprise), 1);
  releaseLockSrvsCache();
  expectConforming();
}

TEST_F(Commands, ParametersGoToTheAgentTheQueueAndTheUpdateCommand) {
  const std::string words = R"("scope": 1, "scan_start_ms": 1700000000999, "scan_rule_type": 2,
      "scan_rule_value": 3, "max_delay": 600, "packet_size": 10, "attempts": 4,
      "time_threshold": 61, "delay_factor": 5, "ping_period": 1800, "parameters_period": 20,
      "catalog_period": 7200, "topology_period": 14400, "upload_min_time": 120)";
  serve(R"({"require_plugin": false, "parameters": {)" + words +
        R"(, "update_enabled": "yes", "max_update_period": 1000}})");
  command_ = Command{slmAgentDownloadParametersCommand, kNow, 0, 86400};
  EXPECT_EQ(slmAgentDownloadParametersCommand(&command_), kCommandRequeueToo);
  uint8_t block[8];
  ASSERT_EQ(getAgentStructValue(kAgentScanStart, block), kAgentValueOk);
  EXPECT_EQ(static_cast<AgentTime>(getFixed32(block)), kNow);
  ASSERT_EQ(getAgentStructValue(kAgentScanRule, block), kAgentValueOk);
  EXPECT_EQ(getFixed32(block) * 10 + getFixed32(block + 4), 23u);
  int64_t delay = 0, factor = 0;
  ASSERT_EQ(getAgentIntValue(kAgentMaxDelaySeconds, &delay), kAgentValueOk);
  ASSERT_EQ(getAgentIntValue(kAgentDelayFactor, &factor), kAgentValueOk);
  EXPECT_EQ(delay * 10 + factor, 6005);
  EXPECT_EQ(getScope(), 1);
  EXPECT_EQ(getUploadMinimumTime(), 120);
  EXPECT_EQ(command_.period, 86400);  // 20 seconds is below its own minimum
  EXPECT_FALSE(traced("WARNING - Command not found to change period"));
  EXPECT_TRUE(traced("OK - New agent period for update"));
  EXPECT_TRUE(isCommandQueued(slmAgentCheckForNewAgentCommand));
  int32_t saved = 0;
  ASSERT_EQ(loadParameter(kParameterMaxUpdatePeriod, &saved), kParameterOk);
  EXPECT_EQ(saved, 1000);

  // The same maximum again draws no new period; a disabled update leaves the queue.
  restartTrace();
  EXPECT_EQ(slmAgentDownloadParametersCommand(&command_), kCommandRequeueToo);
  EXPECT_FALSE(traced("OK - New agent period for update"));
  serve(R"({"require_plugin": false, "parameters": {)" + words +
        R"(, "update_enabled": "no", "parameters_period": 45}})");
  EXPECT_EQ(slmAgentDownloadParametersCommand(&command_), kCommandRequeueToo);
  EXPECT_FALSE(isCommandQueued(slmAgentCheckForNewAgentCommand));
  EXPECT_EQ(command_.period, 45);
  // Disabled again with nothing queued: the queue is still asked, and says so.
  restartTrace();
  EXPECT_EQ(slmAgentDownloadParametersCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("WARNING - Command not found for dequeueing"));

  serve(R"({"services": {"parameters": {"result": -1}}})");
  EXPECT_EQ(slmAgentDownloadParametersCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("ERROR - Agent unknown: plug-in needed"));
  EXPECT_EQ(plugged(), 0);
}

TEST_F(Commands, GetNodeStaysQueuedUntilANodeComes) {
  serve(R"({"plugin": {"withhold_node": 1, "first_result": 0}})");
  ASSERT_EQ(setAgentIntValue(kAgentNodeId, 0), kAgentValueOk);
  EXPECT_EQ(slmAgentGetNodeCommand(&command_), kCommandRequeueToo);
  EXPECT_EQ(slmAgentGetNodeCommand(&command_), kCommandDone);
  int64_t node = 0;
  ASSERT_EQ(getAgentIntValue(kAgentNodeId, &node), kAgentValueOk);
  EXPECT_EQ(node, 1001);
}

TEST_F(Commands, ServersThatDoNotRespondArePingedBack) {
  serve(R"({})");
  ServerHandle handle = nullptr;
  ServerInfo info{};
  ASSERT_EQ(readLockSrvsCache(), kSrvsOk);
  ASSERT_EQ(getNextServer(&handle, kAnyServer, &info), kSrvsOk);
  serverNotResponding(handle);
  releaseLockSrvsCache();
  EXPECT_EQ(slmAgentCheckServersStatusCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("OK - Pinged 1 servers"));
  EXPECT_EQ(testActive(handle), 1);
  EXPECT_EQ(slmAgentCheckServersStatusCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("OK - No inactive servers to ping"));
}

class SelfUpdate : public Commands {
 protected:
  void SetUp() override {
    Commands::SetUp();
    root_.makeDirs("tmp");
    copyBounded(tempDir, kPathSize - 1, root_.file("tmp/qsam").c_str());
    copyBounded(conf_file, kPathSize - 1, root_.file("etc/kvdagent.ini").c_str());
    root_.writeFile("served/pkg/install.sh", "#!/bin/sh\n");
    root_.writeFile("served/pkg/kvdagent", std::string(3000, 'k'));
    // The agent threads a failed installation restarts: an idle inventory thread only.
    for (int i = 0; i < 3; ++i) saved_[i] = workerFunctions(kSlots[i]);
    setWorkerFunctions(WorkerSlot::kCommands, {});
    setWorkerFunctions(WorkerSlot::kMonitor, {});
    setWorkerFunctions(WorkerSlot::kInventory, {nullptr, idleBody, nullptr, nullptr});
    // As in the running daemon, the configuration is read again only by a failed installation.
    deleteConfigurationVariables();
  }
  void TearDown() override {
    slmAgentStopThreads(0);
    for (int i = 0; i < 3; ++i) setWorkerFunctions(kSlots[i], saved_[i]);
    tempDir[0] = conf_file[0] = '\0';
    Commands::TearDown();
  }
  static constexpr WorkerSlot kSlots[3] = {WorkerSlot::kCommands, WorkerSlot::kInventory,
                                           WorkerSlot::kMonitor};
  WorkerFunctions saved_[3];

  static int idleBody() {
    sleepSlmThread(inv_thread, -1);
    return 0;
  }
  // Offers the two files with `command`, signed or not.
  void offer(const std::string& command, bool sign = true) {
    serve(R"({"require_plugin": false, "new_agent": {"command": ")" + command +
          R"(", "files": ["/pkg/kvdagent", "/pkg/install.sh"]}, "downloads": {"root": ")" +
          root_.file("served") + R"(", "sign": )" + (sign ? "true" : "false") + "}}");
  }
};

TEST_F(SelfUpdate, VerifiedFilesAreInstalledAndTheAgentGoes) {
  const std::string installer = root_.file("tmp/qsam/install.sh");
  const std::string shell = "/bin/sh -c ";
  const std::string inUnit =
      root_.file("usr/bin/systemd-run") + " --unit=kvdagent-update-1700000000 --collect --wait ";
  const char* service = "0::/system.slice/kvdagent.service\n";
  const char* hybrid = "2:pids:/\n1:name=systemd:/system.slice/kvdagent.service\n0::/\n";
  struct Case {
    SelfUpdateMode mode;
    const char* cgroup;  // null: the machine was not booted with systemd
    bool systemdRun;
    std::vector<std::string> ran;
    std::string way;
  } cases[] = {
      {SelfUpdateMode::kLegacy,
       nullptr,
       true,
       {shell + "chmod +x " + installer, shell + installer + " -q"},
       "runs as the agent's child"},
      // Without a shell: the mode is set directly, and the installer runs from its words.
      {SelfUpdateMode::kStrict, nullptr, true, {installer + " -q"}, "runs as the agent's child"},
      // A service of systemd's: the same words in a unit of their own, the shell's too.
      {SelfUpdateMode::kStrict,
       service,
       true,
       {inUnit + installer + " -q"},
       "OK - The installer runs in unit kvdagent-update-1700000000 through " +
           root_.file("usr/bin/systemd-run")},
      {SelfUpdateMode::kLegacy,
       hybrid,
       true,
       {shell + "chmod +x " + installer, inUnit + shell + installer + " -q"},
       "runs in unit"},
      // Started by hand in a login session of a systemd machine.
      {SelfUpdateMode::kStrict,
       "0::/user.slice/user-0.slice/session-4.scope\n",
       true,
       {installer + " -q"},
       "no systemd service runs the agent"},
      {SelfUpdateMode::kStrict,
       service,
       false,
       {installer + " -q"},
       "WARNING - No unit of its own for the installer (" + root_.file("usr/bin/systemd-run") +
           ", error 1)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(static_cast<int>(c.mode)) + (c.cgroup ? c.cgroup : " none"));
    std::filesystem::remove_all(root_.file("run"));
    std::filesystem::remove_all(root_.file("usr"));
    if (c.cgroup != nullptr) {
      root_.makeDirs("run/systemd/system");
      root_.writeFile("proc/self/cgroup", c.cgroup);
    }
    if (c.systemdRun) {
      root_.writeFile("usr/bin/systemd-run", "");
      ASSERT_EQ(chmod(root_.file("usr/bin/systemd-run").c_str(), 0755), 0);
    }
    SecuritySettings settings;
    settings.selfUpdate = c.mode;
    setSecuritySettings(settings);
    shellLines.clear();
    remove(installer.c_str());
    offer(installer + " -q");
    // Only the first 64 bytes of a signature file count; more is no error.
    std::ofstream(root_.file("served/pkg/kvdagent.sign"), std::ios::app) << "\n";
    EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandFatal);
    EXPECT_TRUE(traced("Executed command: chmod +x " + installer + "; exit 0"));
    EXPECT_TRUE(traced(c.way)) << trace();
    startTrace(root_.file("trace.log").c_str());
    EXPECT_EQ(shellLines, c.ran);
    EXPECT_EQ(test::readFile(root_.file("tmp/qsam/kvdagent")), std::string(3000, 'k'));
    int32_t update = 0, maximum = 7;
    ASSERT_EQ(loadParameter(kParameterSecondsToUpdate, &update), kParameterOk);
    ASSERT_EQ(loadParameter(kParameterMaxUpdatePeriod, &maximum), kParameterOk);
    EXPECT_EQ(update * 10 + maximum, -10);
    // The agent information is gone with the agent.
    int64_t id = 0;
    EXPECT_EQ(getAgentIntValue(kAgentId, &id), kAgentValueFailed);
    ASSERT_EQ(loadConfigurationFile(conf_file), kConfigurationLoaded);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    deleteConfigurationVariables();
  }
  // The strict installer was made executable without a shell, and ran with the fixed environment.
  struct stat status;
  ASSERT_EQ(stat(installer.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0711u);
  EXPECT_EQ(lastEnvironment.at(0), "PATH=/usr/sbin:/usr/bin:/sbin:/bin");
  EXPECT_LE(lastEnvironment.size(), 2u);
}

TEST_F(SelfUpdate, StrictRunsOnlyAVerifiedDownloadWithPlainWords) {
  const std::string dir = root_.file("tmp/qsam");
  struct Case {
    std::string command;
    std::string traced;
  } cases[] = {
      {dir + "/install.sh;touch /x", "its program '" + dir + "/install.sh;touch' is not one"},
      {dir + "/install.sh -q;id", "word 2 '-q;id' holds a character other than"},
      {dir + "/install.sh a|b", "word 2 'a|b'"},
      {dir + "/install.sh $(id)", "word 2 '$(id)'"},
      {dir + "/install.sh `id`", "word 2 '`id`'"},
      // A line feed inside the line (the JSON escape reaches the agent as the byte itself).
      {dir + "/install.sh x\\nid", "word 2 'x"},
      {dir + "/install.sh >/etc/passwd", "word 2 '>/etc/passwd'"},
      {"/bin/sh -c id", "its program '/bin/sh' is not one of the files downloaded into " + dir},
      {dir + "/../qsam/install.sh", "its program '" + dir + "/../qsam/install.sh' is not one"},
      {dir + "/install", "its program '" + dir + "/install' is not one"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    offer(c.command);
    EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
    EXPECT_TRUE(traced("ERROR - Update command refused: " + c.traced)) << trace();
  }
  EXPECT_EQ(shellLines, std::vector<std::string>{});
  // Refused before anything was fetched.
  EXPECT_FALSE(test::fileExists(dir + "/install.sh"));
  int64_t id = 0;
  EXPECT_EQ(getAgentIntValue(kAgentId, &id), kAgentValueOk);
}

TEST_F(SelfUpdate, OffNeverChecksNorQueues) {
  SecuritySettings settings;
  settings.selfUpdate = SelfUpdateMode::kOff;
  setSecuritySettings(settings);
  offer(root_.file("tmp/qsam/install.sh"));
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandDone);
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/install.sh")));
  serve(R"({"require_plugin": false, "parameters": {"update_enabled": "yes"}})");
  Command parameters{slmAgentDownloadParametersCommand, kNow, 0, 86400};
  EXPECT_EQ(slmAgentDownloadParametersCommand(&parameters), kCommandRequeueToo);
  EXPECT_FALSE(isCommandQueued(slmAgentCheckForNewAgentCommand));
}

TEST_F(SelfUpdate, AFailedInstallerBringsTheAgentBack) {
  offer(root_.file("tmp/qsam/install.sh"));
  shellStatus = 256;
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Launching " + root_.file("tmp/qsam/install.sh") + ", error: 256"));
  int64_t id = 0;
  ASSERT_EQ(getAgentIntValue(kAgentId, &id), kAgentValueOk);
  EXPECT_EQ(id, 4711);
  EXPECT_NE(inv_thread, nullptr);
}

TEST_F(SelfUpdate, NothingRunsUnlessEveryFileIsSigned) {
  offer(root_.file("tmp/qsam/install.sh"), false);
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Check for new agent"));
  root_.writeFile("served/pkg/kvdagent.sign", std::string(63, 's'));
  root_.writeFile("served/pkg/install.sh.sign", std::string(64, 's'));
  offer(root_.file("tmp/qsam/install.sh"), false);
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Signature file " + root_.file("tmp/qsam/kvdagent.sign") + " error"));
  // A file that failed its check is not left under its name, nor is its part.
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/kvdagent")));
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/kvdagent.part")));
  offer("install.sh -q");
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
  EXPECT_TRUE(traced("ERROR - Bad program path 'install.sh'"));
  EXPECT_EQ(shellLines, std::vector<std::string>{});
  serve(R"({"require_plugin": false})");
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeueToo);
  EXPECT_TRUE(traced("OK - No new agents found"));
}

TEST_F(SelfUpdate, UnderTheSitePolicyOnlyTheSignedManifestsSetIsInstalled) {
  test::SiteSigner site(root_, "site");
  site.trustUnder(root_);
  const std::string installer = root_.file("tmp/qsam/install.sh");
  const std::string agent = root_.file("served/pkg/kvdagent");
  const std::string script = root_.file("served/pkg/install.sh");
  // The manifest of the two files as they are now, ending at `notAfter`.
  auto manifestFor = [&](const std::string& notAfter, std::vector<std::string> files) {
    site.sign(files, "--manifest --version 1.1.1.52 --not-after " + notAfter + " --command '" +
                         installer + " -q'");
  };
  const struct {
    std::function<void()> prepare;
    std::string traced;
  } cases[] = {
      // Another release's program, validly signed by both keys, in place of the listed one.
      {[&] {
         manifestFor("2023-12-01T00:00:00Z", {agent, script});
         root_.writeFile("served/pkg/kvdagent", "older agent");
         site.sign({agent});
       },
       "ERROR - Update refused: the SHA-256 of " + root_.file("tmp/qsam/kvdagent") +
           " is not the manifest's"},
      // One second before the agent's clock, which is not the system's.
      {[&] {
         manifestFor("2023-11-14T22:13:19Z", {agent, script});
       },
       "ERROR - Update refused: manifest /pkg/kvdagent.manifest expired at 2023-11-14T22:13:19Z"},
  };
  for (const auto& c : cases) {
    c.prepare();
    offer(installer + " -q");
    EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandRequeue);
    EXPECT_TRUE(traced(c.traced)) << trace();
    EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/kvdagent")));
  }
  EXPECT_EQ(shellLines, std::vector<std::string>{});
  // Valid up to the very second of the agent's clock.
  root_.writeFile("served/pkg/kvdagent", std::string(3000, 'k'));
  manifestFor("2023-11-14T22:13:20Z", {agent, script});
  offer(installer + " -q");
  EXPECT_EQ(slmAgentCheckForNewAgentCommand(&command_), kCommandFatal);
  EXPECT_EQ(shellLines, std::vector<std::string>{installer + " -q"});
  // Nothing of the manifest or the signatures is left beside the installed files.
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/kvdagent.manifest")));
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/kvdagent.sig")));
}

}  // namespace
}  // namespace slm
