// waymarkd's start against the kernel: its control socket answers while the
// configuration is still being read (a FIFO that the test fills when it
// likes stands for a slow file), a stop is heard then too, and once the file
// is whole the start goes on to idle.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "control/ControlServer.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

constexpr char kConfig[] = R"(access-lists:
  web: [permit tcp any any eq 80]
class-maps: {web: [web]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1]}
interfaces: {wn1: edge}
)";

class DaemonStartKernelTest : public ::testing::Test {
 protected:
  DaemonStartKernelTest() {
    std::filesystem::create_directories(dir);
    mkfifo(config.c_str(), 0600);
  }
  ~DaemonStartKernelTest() override { std::filesystem::remove_all(dir); }

  std::unique_ptr<DaemonProcess> launch() {
    return std::make_unique<DaemonProcess>(std::vector<std::string>{
        std::string(WAYMARK_BINARY_DIR) + "/daemon/waymarkd", "--config", config, "--socket",
        socket, "--state", (dir / "state.json").string(), "--trace-level", "0"});
  }
  // The status once the daemon answers and `holds` is true of it; null when
  // that never happened within 20 s.
  nlohmann::json statusOnce(const std::function<bool(const nlohmann::json&)>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      try {
        const auto status = Waymark::controlRequest(socket, {{"command", "status"}});
        if (holds(status)) return status;
      } catch (const std::exception&) {
        // Not listening yet.
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return nullptr;
  }
  static bool phaseIs(const nlohmann::json& status, const std::string& phase) {
    return status["startup"].value("phase", "") == phase;
  }

  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("waymark-start-" + std::to_string(getpid()));
  const std::string config = (dir / "waymark.yaml").string();
  const std::string socket = (dir / "waymarkd.sock").string();
};

TEST_F(DaemonStartKernelTest, TheSocketAnswersWhileTheFileIsReadAndTheStartGoesOnOnceItIsWhole) {
  WAYMARK_REQUIRE_NETNS();
  NetworkNamespace ns;
  ns.addLinkPair("wn0", "wn1");
  ns.run("ip addr add 192.0.2.254/24 dev wn0");
  const auto daemon = launch();
  const auto reading =
      statusOnce([](const auto& s) { return phaseIs(s, "reading configuration"); });
  ASSERT_FALSE(reading.is_null()) << "awaited: a status while the file is read";
  EXPECT_FALSE(reading["idle"].get<bool>());
  EXPECT_EQ(Waymark::controlRequest(socket, {{"command", "idle"}})["idle"], false);
  EXPECT_EQ(Waymark::controlRequest(socket, {{"command", "reload"}})["error"],
            "waymarkd is reading its configuration");
  // waymarkctl says the daemon's own words.
  const std::string counters =
      ns.run(std::string(WAYMARK_BINARY_DIR) + "/cli/waymarkctl --socket " + socket +
             " counters 2>&1; echo exit $?");
  EXPECT_NE(counters.find("waymarkctl: waymarkd is reading its configuration\nexit 1"),
            std::string::npos)
      << counters;

  std::FILE* f = std::fopen(config.c_str(), "w");
  std::fputs(kConfig, f);
  std::fclose(f);
  const auto running = statusOnce([](const auto& s) { return s["idle"] == true; });
  ASSERT_FALSE(running.is_null()) << "awaited: idle once the file was whole";
  EXPECT_TRUE(phaseIs(running, "running"));
  EXPECT_EQ(running["startup"]["nexthopsProgrammed"], 1);
  EXPECT_EQ(daemon->stop(), 0);
}

TEST_F(DaemonStartKernelTest, AStopWhileTheFileIsReadEndsTheDaemon) {
  WAYMARK_REQUIRE_NETNS();
  NetworkNamespace ns;
  const auto daemon = launch();
  ASSERT_FALSE(
      statusOnce([](const auto& s) { return phaseIs(s, "reading configuration"); }).is_null())
      << "awaited: a status while the file is read";
  // The reader still waits for the FIFO's writer: the daemon does not wait
  // for it to stop.
  EXPECT_EQ(daemon->stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(socket));
  // Let the reader's open return so that nothing is left waiting.
  const int fd = open(config.c_str(), O_WRONLY | O_NONBLOCK);
  if (fd >= 0) close(fd);
}

}  // namespace
}  // namespace waymark::test
