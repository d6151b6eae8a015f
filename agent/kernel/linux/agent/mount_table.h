// The mounts of a mount namespace as the kernel's mount table text gives them (the mountinfo
// format of /proc/PID/mountinfo): each mount's id, device, the directory of its file system it
// shows, where it shows it, its type and, for an overlay, the directories of its layers. The exec
// monitor uses it to name files seen through mounts of other namespaces and to know the layers
// below an overlay. Parsing only: callers read the text.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace slm {

struct MountEntry {
  int id = 0;
  dev_t device = 0;
  std::string root;        // the directory of the file system shown at the mount point
  std::string mountPoint;  // as seen from the root of the process whose table it is
  std::string type;
  std::vector<std::string> layers;  // an overlay's lower and upper directories
};

// The mounts of `text`, in its order. Lines that cannot be read are left out; names have their
// octal escapes undone.
std::vector<MountEntry> parseMountTable(std::string_view text);

// Whether `path` is `directory` or lies below it, component by component ("/a" holds "/a/b" but
// not "/ab"; "/" holds every absolute path).
bool pathWithin(std::string_view path, std::string_view directory);

// `path` seen from `directory` (where pathWithin holds): the rest of it, "" for the directory
// itself, else beginning with "/".
std::string_view pathBelow(std::string_view path, std::string_view directory);

}  // namespace slm
