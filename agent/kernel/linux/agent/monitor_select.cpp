// The choice between the kernel module and the built-in exec monitor.
#include "kernel/linux/agent/monitor_select.h"

#include <cstring>

#include "agent_core/cache/agent.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "kernel/linux/agent/driver_check.h"
#include "kernel/linux/agent/exec_monitor.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/unix/base_dir.h"

namespace slm {
namespace {

constexpr int32_t kStatusNoConfiguration = 1;

// Puts the built-in monitor behind the device calls. False when the kernel lacks it.
bool useBuiltinMonitor() {
  if (!execMonitorSupported()) {
    SLM_TRACE(0, "ERROR - The built-in exec monitor is not available on this kernel");
    return false;
  }
  char device[kPathSize];
  setDeviceCalls(&builtinExecMonitorCalls());
  const int anyDriver = 0;  // the device's path is the same for every driver
  if (getDeviceFileName(&anyDriver, device) != kDriverOk ||
      setSlmDeviceFileName(device) != kDriverOk) {
    setDeviceCalls(nullptr);
    return false;
  }
  (void)setAgentIntValue(kAgentDriverStatus, 0);
  SLM_TRACE(1, "OK - Monitoring with the built-in exec monitor");
  return true;
}

}  // namespace

ExecMonitorChoice readExecMonitorChoice() {
  char value[16] = "";
  if (getConfigurationValue(kExecMonitorKey, value, sizeof value) != kConfigurationValueFound) {
    return ExecMonitorChoice::kAuto;
  }
  if (strcmp(value, "module") == 0) return ExecMonitorChoice::kModule;
  if (strcmp(value, "builtin") == 0) return ExecMonitorChoice::kBuiltin;
  if (strcmp(value, "auto") != 0) SLM_TRACE(0, "WARNING - Bad exec_monitor value: %s", value);
  return ExecMonitorChoice::kAuto;
}

int configureMonitoring() {
  ExecMonitorChoice choice = readExecMonitorChoice();
  if (choice == ExecMonitorChoice::kBuiltin) {
    if (useBuiltinMonitor()) return kMonitoringReady;
    (void)setAgentIntValue(kAgentDriverStatus, kStatusNoConfiguration);
    return kMonitoringUnavailable;
  }
  if (configureSlmDriver() == 0) {
    char name[kAgentTextSize] = "";
    (void)getAgentCharValue(kAgentDriverName, name, sizeof name);
    SLM_TRACE(1, "OK - Monitoring with the kernel module %s", name);
    return kMonitoringReady;
  }
  // No module for this kernel, or none that would load: today's kernels need no module.
  if (choice == ExecMonitorChoice::kAuto && useBuiltinMonitor()) return kMonitoringReady;
  return kMonitoringUnavailable;
}

}  // namespace slm
