// The one owner type for a C stream: the stream is closed when its owner goes. A writer that must
// know whether its data reached the file takes the stream back with release() and checks fclose.
#pragma once

#include <cstdio>
#include <memory>

namespace slm {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

}  // namespace slm
