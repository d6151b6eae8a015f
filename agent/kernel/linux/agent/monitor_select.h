// Which monitoring device the agent uses, as the "exec_monitor" setting asks: "module" is the
// kernel module its server offers for this kernel and nothing else; "builtin" is the built-in exec
// monitor and no module; "auto" (the default) tries the module and, when none exists for this
// kernel or none could be loaded, takes the built-in monitor where the kernel supports it. Runs
// once at start-up, while the configuration is loaded and before the monitor thread starts.
#pragma once

namespace slm {

constexpr char kExecMonitorKey[] = "exec_monitor";

enum class ExecMonitorChoice { kAuto, kModule, kBuiltin };

// The configured choice; an unknown text is traced and taken as "auto".
ExecMonitorChoice readExecMonitorChoice();

constexpr int kMonitoringReady = 0;
constexpr int kMonitoringUnavailable = 1;
// Makes the chosen device ready and says which in the trace. The driver status is 0 with a usable
// device; otherwise it holds the module path's failure (or 1 when the built-in monitor alone was
// asked for and the kernel lacks it).
int configureMonitoring();

}  // namespace slm
