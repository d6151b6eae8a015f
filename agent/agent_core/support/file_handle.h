// The owner types for a C stream and for a descriptor: closed when their owner goes. A writer that
// must know whether its data reached the file takes the stream back with release() and checks
// fclose.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>

namespace slm {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace slm
