#include "control/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace Waymark {

bool InstanceLock::take(const std::string& statePath, std::string* error) {
  const std::string path = statePath + ".lock";
  std::error_code ec;
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  Kernel::FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    char holder[32] = {};
    const ssize_t n = pread(fd.get(), holder, sizeof holder - 1, 0);
    std::string pid = n > 0 ? std::string(holder, static_cast<size_t>(n)) : "";
    while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
    *error = "another waymarkd" + (pid.empty() ? std::string() : " (pid " + pid + ")") + " holds " +
             statePath + " (lock " + path + ")";
    return false;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd.get(), 0) != 0 ||
      pwrite(fd.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    *error = "cannot write " + path;
    return false;
  }
  fd_ = std::move(fd);
  return true;
}

}  // namespace Waymark
