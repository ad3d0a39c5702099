#include "config/ConfigFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <thread>

#include "config/ConfigLoader.h"
#include "framework/Clock.h"
#include "framework/String.h"
#include "kernel/FileDescriptor.h"

namespace Waymark {

namespace {

using Steady = std::chrono::steady_clock;

ConfigError unreadable(const std::string& path) {
  return ConfigError(path + ": cannot be read: " + std::strerror(errno));
}

ConfigError tooLarge(const std::string& path) {
  return ConfigError(path + ": larger than " + std::to_string(ConfigFile::kMaxBytes >> 20) +
                     " MiB, not read");
}

Kernel::FileDescriptor openToRead(const std::string& path) {
  // Non-blocking: opening a pipe must not wait for its writer here.
  Kernel::FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) throw unreadable(path);
  return fd;
}

// Appends what `fd` has now; false at its end.
bool readSome(int fd, const std::string& path, std::string& text) {
  char buffer[65536];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) return false;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (n < 0) throw unreadable(path);
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > ConfigFile::kMaxBytes) throw tooLarge(path);
  }
}

std::string readRegular(const std::string& path) {
  const auto fd = openToRead(path);
  std::string text;
  while (readSome(fd.get(), path, text)) {
  }
  return text;
}

// A pipe, or a device: read until its writer closes it. A pipe without a
// writer yet reads as ended; poll waits for one to come and write or go.
std::string readStream(const std::string& path, double patience) {
  const auto fd = openToRead(path);
  const auto deadline =
      Steady::now() + std::chrono::duration<double>(std::min(patience, 365.0 * 24 * 3600));
  std::string text;
  while (true) {
    const double left = std::chrono::duration<double>(deadline - Steady::now()).count();
    if (left <= 0) {
      throw ConfigError(path + ": its writer did not finish within " + Vix::format("%g", patience) +
                        " s");
    }
    pollfd p{fd.get(), POLLIN, 0};
    const int timeout = patience == Vix::kNever ? -1 : static_cast<int>(std::ceil(left * 1000));
    const int ready = ::poll(&p, 1, timeout);
    if (ready < 0 && errno != EINTR) throw unreadable(path);
    if (ready <= 0) continue;
    if (!readSome(fd.get(), path, text)) return text;
  }
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// Seconds since the file last changed. A time in the future cannot be
// judged: it counts as quiet.
double age(const struct stat& st) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double changed =
      static_cast<double>(std::max(st.st_mtim.tv_sec, st.st_ctim.tv_sec)) +
      (st.st_mtim.tv_sec >= st.st_ctim.tv_sec ? st.st_mtim.tv_nsec : st.st_ctim.tv_nsec) * 1e-9;
  const double seconds = static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9 - changed;
  return seconds < 0 ? ConfigFile::kQuietSeconds : seconds;
}

}  // namespace

std::string ConfigFile::read(const std::string& path, double pipePatience) {
  const auto deadline = Steady::now() + std::chrono::duration<double>(kStableWithinSeconds);
  while (true) {
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0) throw unreadable(path);
    // A pipe or a device has no times to go by.
    if (!S_ISREG(before.st_mode)) return readStream(path, pipePatience);
    if (static_cast<size_t>(before.st_size) > kMaxBytes) throw tooLarge(path);
    const double quietFor = age(before);
    const bool late = Steady::now() >= deadline;
    if (quietFor < kQuietSeconds) {
      if (late) {
        throw ConfigError(path + ": still being written (it kept changing for " +
                          Vix::format("%g", kStableWithinSeconds) + " s)");
      }
      std::this_thread::sleep_for(std::chrono::duration<double>(kQuietSeconds - quietFor));
      continue;
    }
    std::string text = readRegular(path);
    struct stat after {};
    if (::stat(path.c_str(), &after) == 0 && sameFile(before, after)) return text;
    if (late) throw ConfigError(path + ": changed while it was read");
  }
}

}  // namespace Waymark
