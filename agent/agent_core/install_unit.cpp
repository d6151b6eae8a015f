// Deciding where the installer runs, and the systemd-run argv that gives it a unit of its own.
#include "agent_core/install_unit.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "agent_core/support/file_handle.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

// The cgroup file is a dozen short lines; one longer than this is read in part.
constexpr size_t kCgroupTextMax = 8192;

}  // namespace

bool cgroupIsService(const char* cgroupText) {
  // Lines are "<id>:<controllers>:<path>". With the systemd hierarchy of version 1 mounted, its
  // line is the one systemd keeps; without it (version 2 only) the unified line is.
  int systemdLine = -1;  // 1: that hierarchy's path is a service's, 0: it is not, -1: no line
  int unifiedLine = -1;
  for (const char* line = cgroupText; *line != '\0';) {
    const std::string_view text(line, strcspn(line, "\n"));
    line += text.size() + (line[text.size()] == '\n' ? 1 : 0);
    const size_t first = text.find(':');
    const size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
    if (second == text.npos) continue;
    const std::string_view path = text.substr(second + 1);
    const int service = path.size() > 1 + kServiceSuffix.size() && path.ends_with(kServiceSuffix);
    if (text.substr(first + 1, second - first - 1) == "name=systemd") {
      systemdLine = service;
    } else if (text.substr(0, second) == "0:") {
      unifiedLine = service;
    }
  }
  return (systemdLine >= 0 ? systemdLine : unifiedLine) == 1;
}

bool runBySystemdService() {
  struct stat status;
  if (stat(rootedPath(kSystemdDirectory).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return false;
  }
  FileHandle file(fopen(rootedPath(kOwnCgroupFile).c_str(), "re"));
  if (file == nullptr) return false;
  char text[kCgroupTextMax + 1];
  const size_t read = fread(text, 1, kCgroupTextMax, file.get());
  text[read] = '\0';
  return cgroupIsService(text);
}

int buildInstallUnit(const char* const* argv, int32_t now, InstallUnit* unit) {
  rootedPath(kSystemdRunPath, unit->systemdRun, sizeof unit->systemdRun);
  struct stat status;
  if (stat(unit->systemdRun, &status) != 0 || !S_ISREG(status.st_mode) ||
      access(unit->systemdRun, X_OK) != 0) {
    return kInstallUnitNoSystemdRun;
  }
  snprintf(unit->unit, sizeof unit->unit, "%s%d", kInstallUnitPrefix, static_cast<int>(now));
  snprintf(unit->unitOption, sizeof unit->unitOption, "--unit=%s", unit->unit);
  const char* options[] = {unit->systemdRun, unit->unitOption, "--collect", "--wait"};
  constexpr size_t kOptions = sizeof options / sizeof options[0];
  constexpr size_t kCapacity = sizeof unit->argv / sizeof unit->argv[0];
  size_t count = 0;
  for (const char* option : options) unit->argv[count++] = option;
  for (const char* const* word = argv; *word != nullptr; ++word) {
    if (count == kCapacity - 1) return kInstallUnitTooLong;
    unit->argv[count++] = *word;
  }
  static_assert(kOptions + kInstallWordsMax + 1 <= kCapacity);
  unit->argv[count] = nullptr;
  return kInstallUnitReady;
}

}  // namespace slm
