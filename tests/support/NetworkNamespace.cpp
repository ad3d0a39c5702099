#include "tests/support/NetworkNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

namespace waymark::test {

namespace {

int shell(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string uniqueName() {
  static std::atomic<int> counter{0};
  return "wmtest-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

}  // namespace

std::string NetworkNamespace::unavailableReason() {
  if (geteuid() != 0) return "needs root to create network namespaces";
  const std::string probe = uniqueName();
  if (shell("ip netns add " + probe + " 2>/dev/null") != 0) {
    return "cannot create network namespaces (ip netns add failed)";
  }
  shell("ip netns del " + probe);
  return "";
}

NetworkNamespace::NetworkNamespace() : name_(uniqueName()) {
  originalFd_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  if (originalFd_ < 0 || shell("ip netns add " + name_) != 0) {
    ADD_FAILURE() << "cannot create network namespace " << name_;
    return;
  }
  const int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
  const bool entered = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
  if (fd >= 0) close(fd);
  if (!entered) ADD_FAILURE() << "cannot enter network namespace " << name_;
  shell("ip link set lo up");
}

NetworkNamespace::~NetworkNamespace() {
  if (originalFd_ >= 0) {
    if (setns(originalFd_, CLONE_NEWNET) != 0) ADD_FAILURE() << "cannot leave " << name_;
    close(originalFd_);
  }
  shell("ip netns del " + name_ + " 2>/dev/null");
}

std::string NetworkNamespace::run(const std::string& command) const {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) {
    ADD_FAILURE() << "cannot run: " << command;
    return "";
  }
  std::string out;
  std::array<char, 4096> buffer{};
  size_t n;
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0) out.append(buffer.data(), n);
  const int status = pclose(pipe.release());
  if (status != 0) ADD_FAILURE() << "command failed (" << status << "): " << command;
  return out;
}

void NetworkNamespace::addLinkPair(const std::string& a, const std::string& b) const {
  run("ip link add " + a + " type veth peer name " + b + " && ip link set " + a +
      " up && ip link set " + b + " up");
  const std::string show = "ip -o link show dev " + a;
  for (int i = 0; i < 250; ++i) {
    if (run(show).find(" state UP ") != std::string::npos) return;
    usleep(20000);
  }
  ADD_FAILURE() << a << " is not up after 5 s";
}

}  // namespace waymark::test
