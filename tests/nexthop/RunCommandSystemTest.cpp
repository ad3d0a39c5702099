// runCommand through the real system() and shell, with a fake `ip` placed
// first on PATH that succeeds, fails with exit code 2, or has its shell killed
// by a signal.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

class RunCommandThroughTheShell : public ::testing::Test {
 protected:
  RunCommandThroughTheShell() : savedPath_(std::getenv("PATH") ? std::getenv("PATH") : "") {
    dir_ = std::filesystem::temp_directory_path() / ("waymark-fake-ip-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
    std::ofstream(dir_ / "ip") << "#!/bin/sh\n"
                                  "case \"$1\" in\n"
                                  "  ok) exit 0 ;;\n"
                                  "  fail) exit 2 ;;\n"
                                  "  signal) kill -TERM $PPID; exit 0 ;;\n"
                                  "esac\n"
                                  "exit 1\n";
    std::filesystem::permissions(dir_ / "ip", std::filesystem::perms::owner_all);
    setenv("PATH", (dir_.string() + ":" + savedPath_).c_str(), 1);
  }
  ~RunCommandThroughTheShell() override {
    setenv("PATH", savedPath_.c_str(), 1);
    std::filesystem::remove_all(dir_);
  }

  TraceCapture traces;
  Vix::Ptr<Pbr::NexthopTableManager> manager =
      Vix::make<Pbr::NexthopTableManager>(nullptr, nullptr);

 private:
  std::string savedPath_;
  std::filesystem::path dir_;
};

TEST_F(RunCommandThroughTheShell, ExitZeroSucceeds) {
  EXPECT_TRUE(manager->runCommand("ip ok", false));
  EXPECT_EQ(traces.texts(4), (std::vector<std::string>{"Running command: ip ok"}));
}

TEST_F(RunCommandThroughTheShell, ExitTwoFailsWithItsCode) {
  EXPECT_FALSE(manager->runCommand("ip fail", false));
  EXPECT_EQ(traces.texts(4).back(), "\tCommand failed with return value 2!");
}

TEST_F(RunCommandThroughTheShell, AShellKilledByASignalIsReportedAndCountsAsSuccess) {
  EXPECT_TRUE(manager->runCommand("ip signal", false));
  EXPECT_EQ(traces.texts(4).back(), "\tFailed to execute command!");
}

}  // namespace
}  // namespace waymark::test
