#include "support/temp_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace slm::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvdagent-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& relative) const {
  return path_ + "/" + relative;
}

void TempDir::makeDirs(const std::string& relative) const {
  std::filesystem::create_directories(file(relative));
}

void TempDir::writeFile(const std::string& relative, const std::string& bytes) const {
  std::filesystem::path target = file(relative);
  std::filesystem::create_directories(target.parent_path());
  // A new file rather than a truncated one: the file system flushes a truncated and rewritten
  // file to the disk when it is closed, which makes tests that rewrite files wait on the disk.
  std::filesystem::remove(target);
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool fileExists(const std::string& path) {
  return std::filesystem::exists(path);
}

}  // namespace slm::test
