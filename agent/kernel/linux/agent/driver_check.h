// Kernel driver management: at start-up, decides whether the driver recorded in plugin.dat still
// fits the running system; otherwise silences every old agent driver, downloads the signed driver
// configuration and module from the preferred server, loads the module and creates its character
// device. The outcome is kept as the driver status agent value, which the monitor reads before it
// starts. Runs on the starting thread (or in the removal run); it keeps no state of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "agent_core/communication/server_address.h"
#include "agent_core/support/slm_list.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/unix/base_dir.h"

namespace slm {

constexpr size_t kDriverNameSize = 256;  // at most 255 characters, then a terminator

// One driver: the one recorded or downloaded, or one listed in /proc/devices (then only the name
// and the major are filled, the rest is zero).
struct DriverEntry {
  char name[kDriverNameSize];  // module name, no directory, no extension
  char deviceFile[kPathSize];  // always the device layer's fixed path
  int32_t major;               // as /proc/devices lists it
  char moduleFile[kPathSize];
};

// Loaded agent drivers are the /proc/devices entries whose name starts with this.
constexpr char kDriverNamePrefix[] = "kvdkagent-";
constexpr char kDriverFileExtension[] = ".o";
// Module file names are built within this many bytes, terminator included.
constexpr size_t kDriverFileNameSize = 4095;

// The driver status agent value, as this module sets it; the monitor adds 4 to 7.
constexpr int32_t kDriverStatusUsable = 0;
constexpr int32_t kDriverStatusNoConfiguration = 1;  // also: prerequisite patches missing
constexpr int32_t kDriverStatusNotDownloaded = 2;
constexpr int32_t kDriverStatusNotActivated = 3;  // also: old drivers could not be removed

// The functions below that state no results of their own return kDriverOk (1) or kDriverFailed
// (0), as the device layer does.

constexpr int kDriverConfigured = 0;
constexpr int kDriverNotConfigured = 1;
// Puts a usable driver in place, reusing the recorded one when the system is unchanged.
// kDriverConfigured or kDriverNotConfigured; the driver status is set either way, except when
// there is no preferred server.
int configureSlmDriver();

// The recorded driver: its name (agent value 27) and the fixed device path.
[[nodiscard]] int getCurrentDriverData(DriverEntry* entry);

constexpr int kKernelExtensionsDownloaded = 0;
constexpr int kKernelExtensionsNotConfigured = 1;    // also: a local failure
constexpr int kKernelExtensionsNoConfiguration = 2;  // also: no driver for this system
constexpr int kKernelExtensionsModuleNotDownloaded = 3;
// Downloads the driver configuration named by "driver_conf_file" from the server in `context`
// into the temporary directory, picks the module for this system and downloads it into the module
// directory, both signed. On success `entry` holds the module's name, module file and device path.
// `context`'s path is used for each download and left changed.
[[nodiscard]] int downloadKernelExtensions(ServerAddress* context, DriverEntry* entry);

constexpr int kKernelExtensionsFound = 0;
constexpr int kKernelExtensionsNotFound = 1;
// Reads the driver configuration file at `path` and appends the module paths of the first line
// that matches `tuple` (kSystemTupleSize bytes) to `modules`, records of kServerPathSize bytes.
// kKernelExtensionsNotFound when no line matches or the file cannot be read.
[[nodiscard]] int findKernelExtensions(const char* tuple, const char* path, SlmList* modules);

// Forms the recorded driver's module file, then activates it.
[[nodiscard]] int checkSlmDriver(DriverEntry* entry);
// Loads the module unless the kernel already has it, then do_activate_driver.
[[nodiscard]] int activateSlmDriver(DriverEntry* entry);
// Finds the driver's major number, creates its device file and makes that the device name.
[[nodiscard]] int do_activate_driver(DriverEntry* entry);

// Called on each listed driver with the caller's argument; the result is not looked at.
using DriverFunction = int (*)(DriverEntry* entry, void* arg);
// Lists the loaded agent drivers and calls `fn` on each in the order of /proc/devices.
// kDriverFailed when the list cannot be made.
[[nodiscard]] int apply_to_drivers(DriverFunction fn, void* arg);
// Appends an entry for every agent driver in /proc/devices (under the agent root) to `list`.
[[nodiscard]] int enumerate_loaded_drivers(SlmList* list);
// The same over an open stream in the form of /proc/devices.
[[nodiscard]] int fill_driver_list(FILE* stream, SlmList* list);
// Copies `entry`'s major number into the DriverEntry `target` when their names are equal.
int discover_device_major(DriverEntry* entry, void* target);

// Silences and deletes every loaded agent driver; kDriverFailed only when the drivers cannot be
// listed. The modules stay loaded.
[[nodiscard]] int dectivateOldKvdDrivers();
// Switches one old driver's event delivery off and removes its device and module files.
int deactivate_driver(DriverEntry* entry, void* arg);

// Creates the entry's device file as a character device (mode 0600, minor 0), replacing any file
// already there.
[[nodiscard]] int createDeviceFile(const DriverEntry* entry);
int removeDeviceFile(const DriverEntry* entry);
int removeDriverFile(const char* name);
// The module file of `name`: the module directory, "/", the name, ".o". kDriverFailed when it
// does not fit in `size` bytes.
[[nodiscard]] int generate_driver_file_name(char* dst, size_t size, const char* name);

}  // namespace slm
