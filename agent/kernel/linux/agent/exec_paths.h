// Naming the file of an exec notice's descriptor in the agent's own mount namespace: directly when
// it was seen through one of the agent's mounts; through a mount of another namespace (a
// container's) by finding the same file below one of the agent's mounts of its file system; and
// not at all when it was seen through the private mount of a layer below an overlay, whose own
// notice names the start. The exec monitor's reader thread owns the one view.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "kernel/linux/agent/mount_table.h"

namespace slm {

// How a mount of another namespace shows its file system: its paths below `shown` are those below
// `root` in the file system of `device`.
struct ForeignMount {
  dev_t device;
  std::string shown;
  std::string root;
};

// The agent's mounts, and what was learnt of other namespaces' mounts since they were read.
struct MountView {
  std::vector<MountEntry> mounts;
  std::unordered_map<int, size_t> byId;
  std::unordered_map<int, ForeignMount> foreign;
};

// Installs the agent's mounts as just read, and forgets the other namespaces' mounts: a mount id
// may come back for another mount once its own has gone.
void setMounts(MountView* view, std::vector<MountEntry> mounts);

// Whether the mount of `status` is one the view knows: the agent's, or another namespace's already
// mapped. True too when the kernel gives no mount id (before Linux 5.8): every file is then taken
// as seen through the agent's mounts.
bool knownMount(const MountView& view, const struct statx& status);

enum class ExecFileNaming { kNamed, kLayer, kUnnamed };

// Names the file of descriptor `fd`, whose status is `status` and which process `pid` started;
// `descriptors` is the agent's /proc/self/fd directory held open (a link below it is read more
// cheaply than one found from the top), or -1. kNamed with `path` set to its absolute path in the
// agent's namespace; kLayer when it was seen through a layer below an overlay; kUnnamed when it
// has no path the agent can give.
ExecFileNaming nameExecFile(MountView* view, int descriptors, int fd, pid_t pid,
                            const struct statx& status, std::string* path);

// A stat record of what `status` holds.
struct stat statOf(const struct statx& status);

}  // namespace slm
