// Start-up and shut-down order of the daemon. Each step traces what it does; a failed step undoes
// what the steps before it built, as far as the step's place in the order requires.
#include "service/service.h"

#include <cstdint>
#include <cstdlib>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/cache.h"
#include "agent_core/communication/comm_init.h"
#include "agent_core/message/nls.h"
#include "agent_core/security_settings.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "kernel/linux/agent/monitor_select.h"
#include "service/threads.h"
#include "service/unix/base_dir.h"

namespace slm {

CodeSet* default_codeset = nullptr;
CodeSet* utf8_codeset = nullptr;

namespace {

constexpr int kInitialTraceLevel = 2;
// The trace settings are read through a buffer of this size, so at most 14 characters count.
constexpr size_t kTraceSettingBytes = 15;

// Reads a numeric trace setting the usual decimal way: leading digits count, the rest of the text
// is ignored. A value that reads as 0 counts only when it is written as 0, so that a non-numeric
// text is reported instead of silently applied.
bool readTraceSetting(const char* key, int32_t* value, char* text) {
  if (getConfigurationValue(key, text, kTraceSettingBytes) != kConfigurationValueFound) {
    return false;
  }
  *value = static_cast<int32_t>(strtoll(text, nullptr, 10));
  return *value != 0 || text[0] == '0';
}

void applyTraceSettings() {
  char text[kTraceSettingBytes] = "";
  int32_t value = 0;
  if (readTraceSetting("trace_level", &value, text)) {
    setTraceLevel(value);
  } else if (text[0] != '\0') {
    SLM_TRACE(1, "WARNING - Bad trace level value %s", text);
  }
  text[0] = '\0';
  if (readTraceSetting("trace_size", &value, text)) {
    setTraceSize(value);
  } else if (text[0] != '\0') {
    SLM_TRACE(1, "WARNING - Bad trace size value %s", text);
  }
}

}  // namespace

int serviceInitialization() {
  if (getBaseDir() != 0 || buildDirs() != 0) return kInitFailed;
  buildFilePath(log_file, logDir, kTraceFileName);
  buildFilePath(conf_file, confDir, kConfFileName);

  // The level set here is reset by the start of the trace: until the configured level is applied
  // only errors are written.
  setTraceLevel(kInitialTraceLevel);
  startTrace(log_file);

  SLM_TRACE(1, "- Loading configuration file %s", conf_file);
  if (loadConfigurationFile(conf_file) != kConfigurationLoaded) {
    SLM_TRACE(0, "ERROR - Main loading '%s' not loaded", kConfFileName);
    deleteConfigurationVariables();
    clearAgentInfo();
    return kInitFailed;
  }
  applyTraceSettings();
  readSecuritySettings();

  SLM_TRACE(1, " - Loading agent properties");
  if (initAgentInfo() == 0) {
    // The configuration stays loaded here: nothing runs after a failed start-up.
    SLM_TRACE(0, "ERROR - Init the agent info");
    return kInitFailed;
  }

  SLM_TRACE(1, " - Init communication");
  if (initCommunication() != 0) {
    SLM_TRACE(0, "ERROR - Main during communication init");
    deleteConfigurationVariables();
    clearAgentInfo();
    return kInitFailed;
  }

  SLM_TRACE(1, " - Creating agent cache");
  if (createCache() != kCacheCreated) {
    SLM_TRACE(0, "ERROR - Main during cache creation");
    closeCommunication();
    return kInitCacheFailed;
  }

  SLM_TRACE(1, "OK - Starting agent...");
  // The kernel module, or the built-in exec monitor, as configured. The agent runs without
  // process monitoring when neither could be put in place; the driver status tells the monitor so.
  (void)configureMonitoring();
  slmAgentStartThreads();
  deleteConfigurationVariables();
  return kInitOk;
}

int slmLocalizationInit() {
  initLanguageSupport(oxiDir, nlsDir);
  char name[kCodeSetNameChars + 1] = "";
  CodeSet* local = nullptr;
  if (getOsCodeSetName(name, sizeof name) == kCodeSetNameRead) local = createCodeSet(name);
  if (local != nullptr) setDefaultCodeSet(local);
  default_codeset = getDefaultCodeSet();
  utf8_codeset = createCodeSet("utf-8");
  return 1;
}

void slmLocalizationFree() {
  freeCodeSet(utf8_codeset);
  utf8_codeset = nullptr;
  freeCodeSet(default_codeset);
  default_codeset = nullptr;
  shutdownLanguageSupport();
}

int serviceFinalization() {
  slmAgentStopThreads(0);
  deleteCache();
  closeCommunication();
  SLM_TRACE(0, "OK - Agent stopped");
  clearAgentInfo();
  stopTrace();
  return 0;
}

}  // namespace slm
