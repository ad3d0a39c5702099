// Kernel::FileDescriptor: owns one open file descriptor and closes it when
// it goes, for the daemon's sockets, pipes and files. Movable, not copyable.
#pragma once

#include <unistd.h>

#include <utility>

namespace Kernel {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& o) noexcept {
    reset();
    fd_ = std::exchange(o.fd_, -1);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Hands the descriptor over without closing it.
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace Kernel
