// The description of the machine the agent runs on: operating system, host name, disks, memory,
// processors and account names, read from the kernel's own interfaces each time (no state, any
// thread). The formatting and the disk walk are separate from the system calls so tests can feed
// them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace slm {

constexpr int kOsInfoSuccess = 0;
constexpr int kOsInfoFailure = 1;

// System name, kernel release and machine family from uname, each cut to `size` - 1 characters
// and terminated. kOsInfoFailure when uname fails (the buffers are left as they were).
int getSystemEnvironment(char* machine, char* systemName, char* release, size_t size);

// "<system name> <kernel release>" cut to fit, or "not avalaible" when uname fails.
void getOsDescription(char* buffer, size_t size);

// kOsInfoFailure when the system call fails.
int getHostName(char* buffer, size_t size);

// The number of IDE and SCSI disks; kOsInfoFailure when `count` is null or the process does not
// run as root.
int getDiskInfo(int32_t* count);
// Counts the disks that answer the drive-geometry request; always kOsInfoSuccess.
int GetNumDisks(int32_t* count);

// Total main memory in MiB. kOsInfoFailure when `megabytes` is null or sysinfo fails.
int getMemInfo(int32_t* megabytes);

// Both outputs get the number of configured processors; kOsInfoFailure only when it is negative.
int getCPUInfo(int32_t* configured, int32_t* online);

// Smallest buffer the account-name functions accept.
constexpr size_t kAccountNameMinSize = 10;
// The account's name in UTF-8, or its decimal id when it has none or the name does not convert.
// kOsInfoFailure, with nothing written, when `size` is below kAccountNameMinSize.
int getUserName(uid_t uid, char* buffer, size_t size);
int getUserGroup(gid_t gid, char* buffer, size_t size);

// --- The pieces below the system calls ---

// "x86" for any machine string containing "86", else the machine string itself.
const char* machineFamily(const char* machine);

// "<systemName> <release>", cut to `size` - 1 characters and terminated.
void formatOsDescription(const char* systemName, const char* release, char* buffer, size_t size);

// Whether the device at `devicePath` (an unrooted "/dev/..." path) is a disk.
using DiskProbe = bool (*)(const char* devicePath);
// Probes /dev/hda to /dev/hdz, then /dev/sda to /dev/sdz, and counts the disks.
int32_t countDisks(DiskProbe probe);
// The real probe: the device under the agent root opens read-only and answers HDIO_GETGEO.
bool answersDriveGeometry(const char* devicePath);

// Writes the account name `localName` (in the local code set; null when the id has no entry)
// converted to UTF-8, or the decimal `id` when there is no name or it does not convert. `size` is
// at least kAccountNameMinSize.
void formatAccountName(const char* localName, int32_t id, char* buffer, size_t size);

}  // namespace slm
