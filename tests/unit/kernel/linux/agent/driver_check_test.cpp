#include "kernel/linux/agent/driver_check.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/system_tuple.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/program_runner.h"
#include "support/service_sandbox.h"

namespace slm {
namespace {

constexpr const char* kNeedsRoot = "creating device nodes needs root";
const std::string kConfiguration =
    "agentid=4711\ndivisionid=-42\ntag=lab\ncustomer=acme\nserver=127.0.0.1\n";

// What the shell and the device were asked to do. A command that succeeds loads the module: the
// kernel then lists `registers` in the fake /proc/devices.
struct Recorder {
  std::vector<std::string> commands;
  int shellStatus = 0;
  std::string devicesFile;
  std::string registers;
  std::vector<std::string> device;
};
Recorder recorder;

int recordShell(const char* const* argv, const char* const*) {
  std::string line;
  for (const char* const* word = argv; *word != nullptr; ++word) {
    line += (line.empty() ? "" : " ") + std::string(*word);
  }
  recorder.commands.push_back(line);
  if (recorder.shellStatus == 0 && !recorder.registers.empty()) {
    if (FILE* file = fopen(recorder.devicesFile.c_str(), "a")) {
      fputs(recorder.registers.c_str(), file);
      fclose(file);
    }
  }
  return recorder.shellStatus;
}
// Driver management only opens, switches off and closes a device: it never reads or writes.
const DeviceCalls kScriptedDevice{[](const char* path, int) {
                                    recorder.device.push_back(std::string("open ") + path);
                                    return 7;
                                  },
                                  [](int, unsigned long request) {
                                    recorder.device.push_back("ioctl " + std::to_string(request));
                                    return 0;
                                  },
                                  nullptr, nullptr,
                                  [](int) {
                                    recorder.device.push_back("close");
                                    return 0;
                                  }};

// A temporary root with module directory, fake /proc files, a recording shell and a scripted
// device, and the reference server as the preferred server.
class DriverCheck : public test::ServiceSandbox {
 protected:
  void SetUp() override {
    ServiceSandbox::SetUp();
    root_.makeDirs("tmp");
    root_.makeDirs("lib/modules");
    root_.makeDirs("proc");
    copyBounded(tempDir, kPathSize - 1, root_.file("tmp/qsam").c_str());
    copyBounded(driverDir, kPathSize - 1, root_.file("lib/modules/").c_str());
    recorder = Recorder{};
    recorder.devicesFile = root_.file("proc/devices");
    setProgramRunner(recordShell);
    setDeviceCalls(&kScriptedDevice);
    ASSERT_EQ(getSystemTuple(tuple_), kSystemTupleBuilt);
  }
  void TearDown() override {
    setProgramRunner(nullptr);
    setDeviceCalls(nullptr);
    cleanSlmDeviceFileName();
    tempDir[0] = driverDir[0] = '\0';
    ServiceSandbox::TearDown();
  }

  void writeProc(const std::string& devices, const std::string& modules) {
    root_.writeFile("proc/devices", devices);
    root_.writeFile("proc/modules", modules);
  }
  // plugin.dat naming `name`, written for this system or for another one.
  void recordDriver(const std::string& name, bool sameSystem) {
    ASSERT_EQ(setAgentCharValue(kAgentDriverName, name.c_str()), kAgentValueOk);
    ASSERT_EQ(storePluginData(), kPluginStored);
    if (sameSystem) return;
    std::string image = readCacheFile(kPluginDatName);
    image[kPluginTupleOffset + kSystemTupleFieldSize] ^= 1;
    writeCacheFile(kPluginDatName, image);
  }
  // The configuration line that fits this system, naming `modules`.
  std::string matchingLine(const std::string& modules) const {
    std::string line = kSystemTupleFormat;
    for (size_t field = 1; field < kSystemTupleFieldCount; ++field) {
      line += std::string(",") + (tuple_ + field * kSystemTupleFieldSize);
    }
    return line + "=" + modules + "\n";
  }
  void publish(const std::string& name, const std::string& content) {
    root_.writeFile("served/" + name, content);
  }
  void serveDownloads() {
    serve(R"({"downloads": {"root": ")" + root_.file("served") + R"(", "sign": true}})");
  }
  // "" leaves the key out.
  void configure(const std::string& driverConfFile) {
    loadConfiguration(kConfiguration +
                      (driverConfFile.empty() ? "" : "driver_conf_file=" + driverConfFile + "\n"));
  }
  static int64_t status() {
    int64_t value = -9;
    EXPECT_EQ(getAgentIntValue(kAgentDriverStatus, &value), kAgentValueOk);
    return value;
  }
  std::string devicePath() const { return root_.file("var/qsam/kvdkagent"); }
  // "c 600 MAJOR:MINOR" for a character device, "file" for anything else, "" when missing.
  std::string deviceNode() const {
    struct stat node;
    if (lstat(devicePath().c_str(), &node) != 0) return "";
    if (!S_ISCHR(node.st_mode)) return "file";
    char text[64];
    snprintf(text, sizeof text, "c %o %u:%u", node.st_mode & 07777, major(node.st_rdev),
             minor(node.st_rdev));
    return text;
  }
  // The device the layer opens now.
  std::string openedDevice() {
    recorder.device.clear();
    EXPECT_EQ(openSlmDriver(), kDriverOk);
    closeSlmDriver();
    return recorder.device.empty() ? "" : recorder.device.front();
  }

  char tuple_[kSystemTupleSize] = {};
};

TEST_F(DriverCheck, ReusesTheRecordedDriverWhileTheSystemIsUnchanged) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  recordDriver("kvdkagent-cur", true);
  writeProc("Character devices:\n  1 mem\n 61 kvdkagent-cur\n\nBlock devices:\n",
            "kvdkagent-cur 16384 0 - Live 0x0\n");
  root_.writeFile("var/qsam/kvdkagent", "stale");
  configure("/drv/drivers.conf");
  serve("{}");  // nothing to download: a download would fail

  EXPECT_EQ(configureSlmDriver(), kDriverConfigured);
  EXPECT_EQ(status(), kDriverStatusUsable);
  EXPECT_TRUE(traced("Driver 'kvdkagent-cur' running"));
  EXPECT_TRUE(traced("Driver kvdkagent-cur is already loaded"));
  EXPECT_EQ(recorder.commands, std::vector<std::string>{});
  EXPECT_EQ(recorder.device, std::vector<std::string>{});  // no old driver was silenced
  EXPECT_EQ(deviceNode(), "c 600 61:0");
  EXPECT_EQ(openedDevice(), "open " + devicePath());
  EXPECT_FALSE(test::fileExists(root_.file("tmp/qsam/drivers.conf")));
}

TEST_F(DriverCheck, InstallsTheDriverListedForAChangedSystem) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  recordDriver("kvdkagent-old", false);
  // Only lines of a number and a name that starts with "kvdkagent-" are agent drivers.
  writeProc(
      "Character devices:\n 61 kvdkagent-old\n 10 misc\nx 60 kvdkagent-x\n"
      "  7 other-kvdkagent-\n\nBlock devices:\n 62   kvdkagent-older  extra\n 63 kvdkagent\n",
      "kvdkagent-old 16384 0 - Live 0x0\n");
  root_.writeFile("lib/modules/kvdkagent-old.o", "old");
  root_.writeFile("lib/modules/kvdkagent-older.o", "older");
  std::string module(3000, 'k');
  publish("drv/drivers.conf", "1.1.1.51,NoSuchSystem,*,*,*,*=/drv/wrong.o\n" +
                                  matchingLine("/drv/kvdkagent-new.o,/drv/spare.o") +
                                  matchingLine("/drv/later.o"));
  publish("drv/kvdkagent-new.o", module);
  configure("/drv/drivers.conf");
  serveDownloads();
  recorder.registers = " 63 kvdkagent-new\n";

  EXPECT_EQ(configureSlmDriver(), kDriverConfigured);
  EXPECT_EQ(status(), kDriverStatusUsable);
  // Each old driver was switched off through its device, then its files went.
  std::string open = "open " + devicePath(), off = "ioctl " + std::to_string(kDriverDisableRequest);
  EXPECT_EQ(recorder.device, (std::vector<std::string>{open, off, "close", open, off, "close"}));
  EXPECT_FALSE(test::fileExists(root_.file("lib/modules/kvdkagent-old.o")));
  EXPECT_FALSE(test::fileExists(root_.file("lib/modules/kvdkagent-older.o")));
  // The configuration and the module arrived verified, without their signatures.
  EXPECT_TRUE(test::fileExists(root_.file("tmp/qsam/drivers.conf")));
  EXPECT_EQ(test::readFile(root_.file("lib/modules/kvdkagent-new.o")), module);
  EXPECT_FALSE(test::fileExists(root_.file("lib/modules/kvdkagent-new.o.sign")));
  EXPECT_EQ(recorder.commands,
            std::vector<std::string>{"/sbin/insmod " + root_.file("lib/modules/kvdkagent-new.o")});
  EXPECT_EQ(deviceNode(), "c 600 63:0");
  EXPECT_EQ(openedDevice(), open);
  // plugin.dat now names the new driver beside this system's tuple.
  std::string image = readCacheFile(kPluginDatName);
  ASSERT_EQ(image.size(), kPluginDatSize);
  EXPECT_EQ(image.substr(kPluginDriverNameOffset, kAgentTextSize),
            test::field("kvdkagent-new", kAgentTextSize));
  EXPECT_EQ(image.substr(kPluginTupleOffset), std::string(tuple_, kSystemTupleSize));
  EXPECT_TRUE(
      traced("Driver kvdkagent-new has been correctly installed, device file " + devicePath()));
}

TEST_F(DriverCheck, RecordsTheStepThatFailed) {
  std::string other = root_.file("other.pem");
  ASSERT_EQ(std::system(("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" +
                         other + "' 2>/dev/null")
                            .c_str()),
            0);
  publish("a/drivers.conf", "1.1.1.50,*,*,*,*,*=/a/any.o\n*,*,*,*,*,*=/a/any.o\n");
  publish("b/drivers.conf", matchingLine("/b/kvdkagent-b.o"));
  publish("b/kvdkagent-b.o", "foreign");
  std::string foreign = root_.file("served/b/kvdkagent-b.o");
  // Signed after the module was written, so the server keeps this signature.
  ASSERT_EQ(std::system(("openssl dgst -md5 -sign '" + other + "' -out '" + foreign + ".sign' '" +
                         foreign + "'")
                            .c_str()),
            0);
  publish("c/drivers.conf", matchingLine("/c/kvdkagent-c.o"));
  publish("d/drivers.conf", matchingLine("/d/kvdkagent-d.o;id"));
  publish("c/kvdkagent-c.o", "module");
  serveDownloads();

  struct Case {
    const char* confFile;  // "" leaves the key out
    char procDevices;      // 'f' a file, 'd' a directory, '-' none
    int shellStatus;
    int64_t status;
    const char* traced;
  } cases[] = {
      {"/a/drivers.conf", 'f', 0, kDriverStatusNoConfiguration,
       "No KE drivers available for this system"},
      {"/a/missing.conf", 'f', 0, kDriverStatusNoConfiguration,
       "ERROR - Kernel driver configuration from from runtime 127.0.0.1"},
      {"/b/drivers.conf", 'f', 0, kDriverStatusNotDownloaded,
       "Error occured downloading KE '/b/kvdkagent-b.o'"},
      {"/d/drivers.conf", 'f', 0, kDriverStatusNoConfiguration,
       "ERROR - Module path '/d/kvdkagent-d.o;id' refused"},
      {"", 'f', 0, kDriverStatusNotDownloaded,
       "ERROR - Kernel drivers cannot be downloaded from runtime 127.0.0.1"},
      {"/c/drivers.conf", 'f', 256, kDriverStatusNotActivated,
       "Driver 'kvdkagent-c' cannot be activated"},
      {"/c/drivers.conf", '-', 0, kDriverStatusNotActivated, "Could not delete old drivers"},
      {"/c/drivers.conf", 'd', 0, kDriverStatusNotActivated,
       "/proc/devices is not a regular file, st_mode: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.confFile) + " " + c.traced);
    remove(cachePath(kPluginDatName).c_str());
    writeProc("  1 mem\n", "");
    if (c.procDevices != 'f') remove(root_.file("proc/devices").c_str());
    if (c.procDevices == 'd') root_.makeDirs("proc/devices");
    configure(c.confFile);
    recorder.shellStatus = c.shellStatus;
    ASSERT_EQ(setAgentIntValue(kAgentDriverStatus, -1), kAgentValueOk);
    restartTrace();
    EXPECT_EQ(configureSlmDriver(), kDriverNotConfigured);
    EXPECT_EQ(status(), c.status);
    EXPECT_TRUE(traced(c.traced)) << trace();
    EXPECT_FALSE(test::fileExists(cachePath(kPluginDatName)));
    // A module that failed its check is never left where a later start could load it.
    EXPECT_FALSE(test::fileExists(root_.file("lib/modules/kvdkagent-b.o")));
    EXPECT_FALSE(test::fileExists(root_.file("lib/modules/kvdkagent-b.o.part")));
  }
  // Without a server nothing is decided, not even the status.
  deleteServersCache();
  cacheCreated_ = false;
  ASSERT_EQ(setAgentIntValue(kAgentDriverStatus, -1), kAgentValueOk);
  EXPECT_EQ(configureSlmDriver(), kDriverNotConfigured);
  EXPECT_EQ(status(), -1);
}

TEST_F(DriverCheck, FindsTheModulesOfTheFirstMatchingLine) {
  char tuple[kSystemTupleSize];
  encodeSystemTuple("Linux", "2.4.20", "x86", "#1 SMP Mon", tuple);
  struct Case {
    const char* text;
    const char* modules;  // "-" for no match
  } cases[] = {
      {"1.1.1.51,*,*,*,*,*=/m/a.o,/m/b.o\n", "/m/a.o /m/b.o"},
      {"1.1.1.51,Linux,2.4.18|2.4.20,x86,2.4.20,YES=/m/a.o\n", "/m/a.o"},
      {"1.1.1.51,Linux,2.4.18|2.4.19,x86,*,*=/m/a.o\n", "-"},
      {"1.1.1.50,*,*,*,*,*=/m/a.o\n", "-"},
      {"*,*,*,*,*,*=/m/a.o\n", "-"},
      {"1.1.1.51,linux,*,*,*,*=/m/a.o\n", "-"},  // case counts
      {"1.1.1.51,*,*,*,*,NOT=/m/a.o\n", "-"},    // an SMP kernel
      {"1.1.1.51,*,*,*,*=/m/a.o\n", "-"},        // five patterns
      {"1.1.1.51,*,*,*,*,*\n", "-"},             // no "="
      {" 1.1.1.51 , Linux ,\t2.4. 20 , x86,*,YES = /m/a.o , /m/b.o \r\n", "/m/a.o /m/b.o"},
      {"1.1.1.51,Linux,2.4.20|,*,*,*=/m/a.o,,/m/b.o\n", "/m/a.o /m/b.o"},
      {"1.1.1.51,Solaris,*,*,*,*=/m/s.o\n1.1.1.51,*,*,x86,*,*=/m/first.o\n"
       "1.1.1.51,*,*,*,*,*=/m/second.o\n",
       "/m/first.o"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    root_.writeFile("drivers.conf", c.text);
    SlmList* modules = createList(kServerPathSize);
    ASSERT_NE(modules, nullptr);
    int found = findKernelExtensions(tuple, root_.file("drivers.conf").c_str(), modules);
    std::string listed;
    for (void* m = getNext(modules, nullptr); m != nullptr; m = getNext(modules, m)) {
      listed += (listed.empty() ? "" : " ") + std::string(static_cast<const char*>(m));
    }
    deleteList(modules);
    EXPECT_EQ(found, *c.modules == '-' ? kKernelExtensionsNotFound : kKernelExtensionsFound);
    EXPECT_EQ(listed, *c.modules == '-' ? "" : c.modules);
  }
}

TEST_F(DriverCheck, LoadsAModuleOnlyWhenTheKernelLacksIt) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  std::string longName(200, 'm');
  struct Case {
    const char* modules;  // null: no module list
    const char* moduleFile;
    int shellStatus;
    int result;
    size_t commands;
  } cases[] = {
      {"kvdkagent-x 16384 0 - Live 0x0\n", "x.o", 0, kDriverOk, 0},
      {"ext4 1 0\nkvdkagent-x\n", "x.o", 0, kDriverOk, 0},
      {"kvdkagent_x 16384 0 - Live 0x0\n", "x.o", 0, kDriverOk, 0},  // as the kernel lists it
      {"kvdkagent-xy 16384 0\nfoo kvdkagent-x\n", "x.o", 0, kDriverOk, 1},
      {"", "x.o", 256, kDriverFailed, 1},
      {"", longName.c_str(), 0, kDriverOk, 1},
      {nullptr, "x.o", 0, kDriverFailed, 0},
  };
  root_.writeFile("proc/devices", " 61 kvdkagent-x\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.modules == nullptr ? "no list" : c.modules);
    remove(root_.file("proc/modules").c_str());
    if (c.modules != nullptr) root_.writeFile("proc/modules", c.modules);
    remove(devicePath().c_str());
    recorder.commands.clear();
    recorder.shellStatus = c.shellStatus;
    DriverEntry entry{};
    copyBounded(entry.name, kDriverNameSize - 1, "kvdkagent-x");
    copyBounded(entry.moduleFile, kPathSize - 1, c.moduleFile);
    ASSERT_EQ(getDeviceFileName(&entry, entry.deviceFile), kDriverOk);
    EXPECT_EQ(activateSlmDriver(&entry), c.result);
    ASSERT_EQ(recorder.commands.size(), c.commands);
    // The loader gets the module's whole path as its own argument, without a shell.
    if (c.commands == 1) {
      EXPECT_EQ(recorder.commands[0], "/sbin/insmod " + std::string(c.moduleFile));
    }
    EXPECT_EQ(deviceNode(), c.result == kDriverOk ? "c 600 61:0" : "");
  }
  EXPECT_TRUE(traced("query_module failed for 'kvdkagent-x'"));
  EXPECT_TRUE(traced("Error inserting module 'x.o', device " + devicePath()));
}

TEST_F(DriverCheck, ReplacesDeviceFilesAndNamesModuleFiles) {
  if (geteuid() != 0) GTEST_SKIP() << kNeedsRoot;
  DriverEntry entry{};
  copyBounded(entry.deviceFile, kPathSize - 1, devicePath().c_str());
  root_.writeFile("var/qsam/kvdkagent", "a regular file");
  for (int major : {61, 62}) {
    entry.major = major;
    EXPECT_EQ(createDeviceFile(&entry), kDriverOk);
    EXPECT_EQ(deviceNode(), "c 600 " + std::to_string(major) + ":0");
  }
  EXPECT_EQ(removeDeviceFile(&entry), kDriverOk);
  EXPECT_EQ(removeDeviceFile(&entry), kDriverFailed);

  char name[kPathSize];
  ASSERT_EQ(generate_driver_file_name(name, kDriverFileNameSize, "kvdkagent-z"), kDriverOk);
  EXPECT_EQ(std::string(name), root_.file("lib/modules//kvdkagent-z.o"));
  // Exactly what fits, terminator included, and one character more.
  std::string fits(kDriverFileNameSize - 1 - strlen(driverDir) - 3, 'n');
  EXPECT_EQ(generate_driver_file_name(name, kDriverFileNameSize, fits.c_str()), kDriverOk);
  EXPECT_EQ(generate_driver_file_name(name, kDriverFileNameSize, (fits + "n").c_str()),
            kDriverFailed);
  EXPECT_EQ(removeDriverFile((fits + "n").c_str()), kDriverFailed);
  EXPECT_TRUE(traced("Filename too long (" + std::to_string(kDriverFileNameSize) + " characters)"));
  root_.writeFile("lib/modules/kvdkagent-z.o", "z");
  EXPECT_EQ(removeDriverFile("kvdkagent-z"), kDriverOk);
  EXPECT_EQ(removeDriverFile("kvdkagent-z"), kDriverFailed);
}

}  // namespace
}  // namespace slm
