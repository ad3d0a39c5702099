// A network namespace of the benchmark's own, entered by this thread for the
// life of the object (so every command it runs lands there) and removed
// afterwards. For the system benchmarks that drive the real kernel.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace waymark::bench {

class PrivateNamespace {
 public:
  explicit PrivateNamespace(const std::string& prefix)
      : name_(prefix + "-" + std::to_string(getpid())) {
    original_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (std::system(("ip netns add " + name_).c_str()) != 0) return;
    const int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    ok_ = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
  }
  ~PrivateNamespace() {
    if (original_ >= 0) {
      if (setns(original_, CLONE_NEWNET) != 0) std::perror("setns");
      close(original_);
    }
    if (std::system(("ip netns del " + name_ + " 2>/dev/null").c_str()) != 0) {
      std::fprintf(stderr, "could not delete namespace %s\n", name_.c_str());
    }
  }
  PrivateNamespace(const PrivateNamespace&) = delete;
  PrivateNamespace& operator=(const PrivateNamespace&) = delete;

  bool ok() const { return ok_; }

 private:
  std::string name_;
  int original_ = -1;
  bool ok_ = false;
};

}  // namespace waymark::bench
