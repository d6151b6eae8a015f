// The naming of started files: the descriptor's own path, the overlay layer check and the mapping
// of other namespaces' mounts onto the agent's.
#include "kernel/linux/agent/exec_paths.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

namespace slm {
namespace {

// Mappings of other namespaces' mounts kept at most.
constexpr size_t kMaxForeignMounts = 4096;

dev_t deviceOf(const struct statx& status) {
  return makedev(status.stx_dev_major, status.stx_dev_minor);
}

std::string joinPath(const std::string& directory, std::string_view rest) {
  if (directory == "/") return rest.empty() ? directory : std::string(rest);
  return directory + std::string(rest);
}

// Whether `path` is the file of `status` (same device and inode), without following a last link.
bool sameFile(const std::string& path, const struct statx& status) {
  struct stat other;
  return lstat(path.c_str(), &other) == 0 && other.st_dev == deviceOf(status) &&
         other.st_ino == status.stx_ino;
}

bool readText(const char* path, std::string* text) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char chunk[16384];
  ssize_t got;
  while ((got = read(fd, chunk, sizeof chunk)) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) text->append(chunk, static_cast<size_t>(got));
  }
  close(fd);
  return got == 0;
}

// The path of the descriptor's file as the kernel writes it for the agent.
bool descriptorPath(int descriptors, int fd, const struct statx& status, std::string* path) {
  char link[64];
  snprintf(link, sizeof link, descriptors >= 0 ? "%d" : "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t length =
      readlinkat(descriptors >= 0 ? descriptors : AT_FDCWD, link, target, sizeof target - 1);
  if (length <= 0) return false;
  path->assign(target, static_cast<size_t>(length));
  // A file removed since it was started keeps its old path, marked so.
  static constexpr std::string_view kDeleted = " (deleted)";
  if (status.stx_nlink == 0 && path->size() > kDeleted.size() &&
      path->compare(path->size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path->resize(path->size() - kDeleted.size());
  }
  return !path->empty() && (*path)[0] == '/';
}

// A path of the agent's namespace for the file of `status`, which lies at `inFileSystem` in its
// file system: below one of the agent's mounts of that file system that shows it.
bool agentNamespacePath(const MountView& view, const std::string& inFileSystem,
                        const struct statx& status, std::string* path) {
  const dev_t device = deviceOf(status);
  for (const MountEntry& mount : view.mounts) {
    if (mount.device != device || !pathWithin(inFileSystem, mount.root)) continue;
    std::string candidate = joinPath(mount.mountPoint, pathBelow(inFileSystem, mount.root));
    if (sameFile(candidate, status)) {
      *path = std::move(candidate);
      return true;
    }
  }
  return false;
}

// An overlay opens the file of a layer below it for every file started from it, and that open is
// seen too, through a private mount of the layer that belongs to no namespace: `shown` is then the
// file's path below one of the layer directories.
bool seenThroughLayer(const MountView& view, const std::string& shown, const struct statx& status) {
  for (const MountEntry& mount : view.mounts) {
    for (const std::string& layer : mount.layers) {
      if (sameFile(joinPath(layer, shown), status)) return true;
    }
  }
  return false;
}

// The path of a file seen through mount `mountId` of another namespace, which `shown` gives as
// that namespace sees it. The mapping learnt first; then the guess that the mount shows its file
// system's root at one of the directories above the file (a container's root does); then the
// mount as the starting process's own table gives it, while that process still exists.
bool foreignPath(MountView* view, int mountId, pid_t pid, const std::string& shown,
                 const struct statx& status, std::string* path) {
  const dev_t device = deviceOf(status);
  auto known = view->foreign.find(mountId);
  if (known != view->foreign.end() && known->second.device == device &&
      pathWithin(shown, known->second.shown) &&
      agentNamespacePath(*view, joinPath(known->second.root, pathBelow(shown, known->second.shown)),
                         status, path)) {
    return true;
  }
  auto learn = [&](std::string shownAt, std::string root) {
    if (view->foreign.size() >= kMaxForeignMounts) view->foreign.clear();
    view->foreign[mountId] = ForeignMount{device, std::move(shownAt), std::move(root)};
  };
  for (size_t slash = 0; slash != std::string::npos; slash = shown.find('/', slash + 1)) {
    if (agentNamespacePath(*view, shown.substr(slash), status, path)) {
      learn(slash == 0 ? "/" : shown.substr(0, slash), "/");
      return true;
    }
  }
  char table[64];
  snprintf(table, sizeof table, "/proc/%d/mountinfo", static_cast<int>(pid));
  std::string text;
  if (!readText(table, &text)) return false;
  for (const MountEntry& mount : parseMountTable(text)) {
    if (mount.id != mountId || !pathWithin(shown, mount.mountPoint)) continue;
    if (agentNamespacePath(*view, joinPath(mount.root, pathBelow(shown, mount.mountPoint)), status,
                           path)) {
      learn(mount.mountPoint, mount.root);
      return true;
    }
  }
  return false;
}

}  // namespace

void setMounts(MountView* view, std::vector<MountEntry> mounts) {
  view->mounts = std::move(mounts);
  view->byId.clear();
  for (size_t i = 0; i < view->mounts.size(); ++i) view->byId.emplace(view->mounts[i].id, i);
  view->foreign.clear();
}

bool knownMount(const MountView& view, const struct statx& status) {
  const int id = static_cast<int>(status.stx_mnt_id);
  return (status.stx_mask & STATX_MNT_ID) == 0 || view.byId.count(id) != 0 ||
         view.foreign.count(id) != 0;
}

ExecFileNaming nameExecFile(MountView* view, int descriptors, int fd, pid_t pid,
                            const struct statx& status, std::string* path) {
  std::string shown;
  if (!descriptorPath(descriptors, fd, status, &shown)) return ExecFileNaming::kUnnamed;
  const int mountId = static_cast<int>(status.stx_mnt_id);
  if ((status.stx_mask & STATX_MNT_ID) == 0 || view->byId.count(mountId) != 0) {
    *path = std::move(shown);
    return ExecFileNaming::kNamed;
  }
  // A mount already mapped is another namespace's, never a layer's: the layers need not be
  // looked at again for every start seen through it.
  if (view->foreign.count(mountId) == 0 && seenThroughLayer(*view, shown, status)) {
    return ExecFileNaming::kLayer;
  }
  return foreignPath(view, mountId, pid, shown, status, path) ? ExecFileNaming::kNamed
                                                              : ExecFileNaming::kUnnamed;
}

struct stat statOf(const struct statx& status) {
  struct stat out {};
  out.st_dev = deviceOf(status);
  out.st_ino = status.stx_ino;
  out.st_mode = status.stx_mode;
  out.st_nlink = status.stx_nlink;
  out.st_uid = status.stx_uid;
  out.st_gid = status.stx_gid;
  out.st_size = static_cast<off_t>(status.stx_size);
  out.st_mtim.tv_sec = status.stx_mtime.tv_sec;
  out.st_mtim.tv_nsec = status.stx_mtime.tv_nsec;
  out.st_ctim.tv_sec = status.stx_ctime.tv_sec;
  out.st_ctim.tv_nsec = status.stx_ctime.tv_nsec;
  return out;
}

}  // namespace slm
