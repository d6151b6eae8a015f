// The system tuple: the running system described as six short texts (format version, system name,
// kernel release, machine family, kernel release again, multi-processor kernel). A kernel driver
// fits the system it was chosen for, so the tuple kept beside the installed driver's name tells
// whether the driver can be reused. No state; any thread.
#pragma once

#include <cstddef>

namespace slm {

constexpr size_t kSystemTupleFieldSize = 50;  // at most 49 characters, then zeros
constexpr size_t kSystemTupleFieldCount = 6;
constexpr size_t kSystemTupleSize = 300;
static_assert(kSystemTupleFieldSize * kSystemTupleFieldCount == kSystemTupleSize);

constexpr size_t kTupleFormatField = 0;
constexpr size_t kTupleSystemNameField = 1;
constexpr size_t kTupleReleaseField = 2;
constexpr size_t kTupleMachineField = 3;
constexpr size_t kTupleReleaseAgainField = 4;
constexpr size_t kTupleSmpField = 5;

constexpr char kSystemTupleFormat[] = "1.1.1.51";

// Fills the kSystemTupleSize bytes at `out` from the uname texts; `machine` is already the machine
// family. The kernel is multi-processor when `kernelVersion` contains "SMP".
void encodeSystemTuple(const char* systemName, const char* release, const char* machine,
                       const char* kernelVersion, char* out);

constexpr int kSystemTupleBuilt = 0;
constexpr int kSystemTupleFailed = 1;
// Describes the running system into the kSystemTupleSize bytes at `dst`. kSystemTupleFailed when
// the system facts cannot be read; `dst` is then left as it was.
[[nodiscard]] int getSystemTuple(char* dst);

}  // namespace slm
