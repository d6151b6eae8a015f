// The mountinfo parser.
#include "kernel/linux/agent/mount_table.h"

#include <sys/sysmacros.h>

#include <cstdlib>

namespace slm {
namespace {

// The next blank-separated field of `line` from `at`, or empty at the end.
std::string_view nextField(std::string_view line, size_t* at) {
  while (*at < line.size() && line[*at] == ' ') ++*at;
  const size_t start = *at;
  while (*at < line.size() && line[*at] != ' ') ++*at;
  return line.substr(start, *at - start);
}

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

// The kernel writes blanks, tabs, new lines, backslashes and, in overlay layer lists, colons and
// commas as a backslash and three octal digits.
std::string unescaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      out.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                      (text[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

// Adds the layer directories an overlay's super options name to `layers`.
void addLayers(std::string_view options, std::vector<std::string>* layers) {
  size_t at = 0;
  while (at <= options.size()) {
    size_t comma = options.find(',', at);
    if (comma == std::string_view::npos) comma = options.size();
    std::string_view option = options.substr(at, comma - at);
    at = comma + 1;
    const size_t equals = option.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = option.substr(0, equals);
    std::string_view value = option.substr(equals + 1);
    if (key == "upperdir" || key == "lowerdir+" || key == "datadir+") {
      layers->push_back(unescaped(value));
    } else if (key == "lowerdir") {
      // Lower layers are joined by ":" (data-only ones by "::"); a colon in a name is escaped.
      size_t from = 0;
      while (from <= value.size()) {
        size_t colon = value.find(':', from);
        if (colon == std::string_view::npos) colon = value.size();
        if (colon > from) layers->push_back(unescaped(value.substr(from, colon - from)));
        from = colon + 1;
      }
    }
  }
}

bool parseLine(std::string_view line, MountEntry* entry) {
  size_t at = 0;
  const std::string_view id = nextField(line, &at);
  (void)nextField(line, &at);  // the parent's id
  const std::string_view device = nextField(line, &at);
  const std::string_view root = nextField(line, &at);
  const std::string_view mountPoint = nextField(line, &at);
  if (id.empty() || mountPoint.empty()) return false;
  // Optional fields follow the mount options, up to a lone "-".
  std::string_view field;
  do {
    field = nextField(line, &at);
  } while (!field.empty() && field != "-");
  if (field.empty()) return false;
  const std::string_view type = nextField(line, &at);
  (void)nextField(line, &at);  // the source
  const std::string_view superOptions = nextField(line, &at);
  const size_t colon = device.find(':');
  if (type.empty() || colon == std::string_view::npos) return false;
  char* end = nullptr;
  const std::string idText(id);
  entry->id = static_cast<int>(strtol(idText.c_str(), &end, 10));
  if (*end != '\0') return false;
  const std::string majorText(device.substr(0, colon));
  const std::string minorText(device.substr(colon + 1));
  const unsigned long major = strtoul(majorText.c_str(), &end, 10);
  if (*end != '\0') return false;
  const unsigned long minor = strtoul(minorText.c_str(), &end, 10);
  if (*end != '\0') return false;
  entry->device = makedev(major, minor);
  entry->root = unescaped(root);
  entry->mountPoint = unescaped(mountPoint);
  entry->type = std::string(type);
  entry->layers.clear();
  if (type == "overlay") addLayers(superOptions, &entry->layers);
  return true;
}

}  // namespace

std::vector<MountEntry> parseMountTable(std::string_view text) {
  std::vector<MountEntry> mounts;
  size_t at = 0;
  while (at < text.size()) {
    size_t newline = text.find('\n', at);
    if (newline == std::string_view::npos) newline = text.size();
    MountEntry entry;
    if (parseLine(text.substr(at, newline - at), &entry)) mounts.push_back(std::move(entry));
    at = newline + 1;
  }
  return mounts;
}

bool pathWithin(std::string_view path, std::string_view directory) {
  if (directory == "/") return !path.empty() && path[0] == '/';
  if (path.substr(0, directory.size()) != directory) return false;
  return path.size() == directory.size() || path[directory.size()] == '/';
}

std::string_view pathBelow(std::string_view path, std::string_view directory) {
  if (directory == "/") return path == "/" ? std::string_view() : path;
  return path.substr(directory.size());
}

}  // namespace slm
