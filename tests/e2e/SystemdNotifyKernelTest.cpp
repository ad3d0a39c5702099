// waymarkd as a Type=notify service, against the kernel: started with
// NOTIFY_SOCKET pointing at the test's own datagram socket, it reports its
// start's phases, and READY=1 only once the start is idle (asked right after,
// the daemon says so); stopping, it says STOPPING=1.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernel/FileDescriptor.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

TEST(SystemdNotifyKernelTest, ReadyComesOnlyOnceTheStartIsIdle) {
  WAYMARK_REQUIRE_NETNS();
  NetworkNamespace ns;
  ns.addLinkPair("wn0", "wn1");
  ns.run("ip addr add 192.0.2.254/24 dev wn0 && ip addr add 2001:db8::fe/64 dev wn0 nodad");
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("waymark-notify-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  const std::string config = (dir / "waymark.yaml").string();
  std::FILE* f = std::fopen(config.c_str(), "w");
  std::fputs(R"(access-lists:
  web: [permit tcp any any eq 80]
  web6: {ipv6: true, rules: [permit tcp any any eq 80]}
class-maps: {web: [web], web6: [web6]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1, 192.0.2.2]}
    - {class: web6, nexthops: ['2001:db8::1']}
interfaces: {wn1: edge}
)",
             f);
  std::fclose(f);

  const std::string notify = (dir / "notify").string();
  Kernel::FileDescriptor listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", notify.c_str());
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const timeval wait{30, 0};
  setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);

  const std::string socketPath = (dir / "waymarkd.sock").string();
  DaemonProcess daemon({std::string(WAYMARK_BINARY_DIR) + "/daemon/waymarkd", "--config", config,
                        "--socket", socketPath, "--state", (dir / "state.json").string()},
                       {{"NOTIFY_SOCKET", notify}});
  std::vector<std::string> messages;
  nlohmann::json status;
  while (true) {
    char buffer[512];
    const ssize_t n = recv(listener.get(), buffer, sizeof buffer, 0);
    ASSERT_GT(n, 0) << "no READY=1 within 30 s; heard: " << ::testing::PrintToString(messages);
    messages.emplace_back(buffer, static_cast<size_t>(n));
    if (messages.back().find("READY=1") == std::string::npos) continue;
    // Asked at once: the daemon that said it is ready is idle.
    status =
        nlohmann::json::parse(ns.run(std::string(WAYMARK_BINARY_DIR) + "/cli/waymarkctl --socket " +
                                     socketPath + " status --json"));
    break;
  }
  EXPECT_EQ(status["startup"]["phase"], "running");
  EXPECT_TRUE(status["idle"].get<bool>());
  EXPECT_EQ(status["startup"]["nexthopsProgrammed"], 3);
  EXPECT_EQ(messages.back(), "READY=1\nSTATUS=running");
  EXPECT_GE(messages.size(), 2u) << "the start's phases come before READY=1";
  EXPECT_EQ(messages.front().rfind("STATUS=", 0), 0u) << messages.front();

  daemon.stop();
  char buffer[512];
  const ssize_t n = recv(listener.get(), buffer, sizeof buffer, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(n)), "STOPPING=1\nSTATUS=stopping");
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace waymark::test
