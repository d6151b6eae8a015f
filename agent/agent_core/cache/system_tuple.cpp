// Building the system tuple from the kernel's description of itself.
#include "agent_core/cache/system_tuple.h"

#include <sys/utsname.h>

#include <cstring>

#include "agent_core/support/bytes.h"
#include "agent_core/support/linux/osinfo.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

void putTupleField(char* out, size_t field, const char* text) {
  char* slot = out + field * kSystemTupleFieldSize;
  memset(slot, 0, kSystemTupleFieldSize);
  copyBounded(slot, kSystemTupleFieldSize - 1, text);
}

}  // namespace

void encodeSystemTuple(const char* systemName, const char* release, const char* machine,
                       const char* kernelVersion, char* out) {
  putTupleField(out, kTupleFormatField, kSystemTupleFormat);
  putTupleField(out, kTupleSystemNameField, systemName);
  putTupleField(out, kTupleReleaseField, release);
  putTupleField(out, kTupleMachineField, machine);
  // The release is repeated on purpose: driver configuration lines match one pattern per field.
  putTupleField(out, kTupleReleaseAgainField, release);
  putTupleField(out, kTupleSmpField, strstr(kernelVersion, "SMP") != nullptr ? "YES" : "NOT");
}

int getSystemTuple(char* dst) {
  char machine[kSystemTupleFieldSize];
  char systemName[kSystemTupleFieldSize];
  char release[kSystemTupleFieldSize];
  if (getSystemEnvironment(machine, systemName, release, sizeof machine) != kOsInfoSuccess) {
    SLM_TRACE(0, "error occurs while retrieving the system info");
    return kSystemTupleFailed;
  }
  struct utsname names;
  if (uname(&names) != 0) return kSystemTupleFailed;
  encodeSystemTuple(systemName, release, machine, names.version, dst);
  return kSystemTupleBuilt;
}

}  // namespace slm
