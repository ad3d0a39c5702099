// A private network namespace for tests that touch the kernel: created with a
// unique name, entered by this thread (so every command the test or the code
// under test runs through the shell lands in it), and left and removed when
// the object goes, whatever the test did.
#pragma once

#include <cstdlib>
#include <string>

namespace waymark::test {

class NetworkNamespace {
 public:
  NetworkNamespace();
  ~NetworkNamespace();
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  // Empty when namespaces can be used here; otherwise why not.
  static std::string unavailableReason();

  const std::string& name() const { return name_; }
  bool entered() const { return originalFd_ >= 0; }

  // Runs `command` through the shell inside the namespace; its standard
  // output. A command that fails makes the test fail.
  std::string run(const std::string& command) const;

  // Adds a veth pair `a`-`b`, sets both ends up and returns once `a` is
  // running. The kernel reports a new carrier up to a second late, and until
  // then a test that reads the link's addresses sees none, and one that adds
  // routes over it meets a link down. A link that stays down fails the test.
  void addLinkPair(const std::string& a, const std::string& b) const;

 private:
  std::string name_;
  int originalFd_ = -1;
};

}  // namespace waymark::test

// Tests that need root and network namespaces skip without them, except under
// CI, where a test that cannot run fails.
#define WAYMARK_REQUIRE_NETNS()                                                     \
  do {                                                                              \
    const std::string why = ::waymark::test::NetworkNamespace::unavailableReason(); \
    if (!why.empty()) {                                                             \
      if (std::getenv("CI") != nullptr) FAIL() << why;                              \
      GTEST_SKIP() << why;                                                          \
    }                                                                               \
  } while (0)
