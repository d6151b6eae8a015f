// A temporary directory that is removed with everything in it when the object goes; tests use it
// as the agent root or as a scratch directory.
#pragma once

#include <string>

namespace slm::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // `path()` + "/" + `relative`.
  std::string file(const std::string& relative) const;
  // Creates the directories of `relative` below the temporary directory.
  void makeDirs(const std::string& relative) const;
  void writeFile(const std::string& relative, const std::string& bytes) const;

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
bool fileExists(const std::string& path);

}  // namespace slm::test
