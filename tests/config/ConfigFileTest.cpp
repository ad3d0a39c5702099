// A configuration file is read only once it is whole.
#include "config/ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "config/ConfigLoader.h"
#include "framework/Clock.h"

namespace Waymark {
namespace {

using Steady = std::chrono::steady_clock;

double since(Steady::time_point t) {
  return std::chrono::duration<double>(Steady::now() - t).count();
}

class ConfigFileTest : public ::testing::Test {
 protected:
  ~ConfigFileTest() override { std::filesystem::remove(path); }
  const std::string path = testing::TempDir() + "waymark-file-" + std::to_string(getpid());
};

// An editor rewriting the file in place is not read in the middle of it.
TEST_F(ConfigFileTest, AFileJustWrittenIsReadOnlyOnceItHasBeenQuiet) {
  std::ofstream(path) << "policy-maps: {}\n";
  const auto written = Steady::now();
  EXPECT_EQ(ConfigFile::read(path), "policy-maps: {}\n");
  // File times are kept in clock ticks: a few milliseconds of slack.
  EXPECT_GE(since(written), ConfigFile::kQuietSeconds - 0.02);
  std::filesystem::remove(path);
  EXPECT_THROW(ConfigFile::read(path), ConfigError);
}

TEST_F(ConfigFileTest, APipeIsReadUntilItsWriterClosesIt) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::thread writer([this] {
    const int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "policy-maps: {}\n", 16), 16);
    ASSERT_EQ(::write(fd, "interfaces: {}\n", 15), 15);
    ::close(fd);
  });
  EXPECT_EQ(ConfigFile::read(path, Vix::kNever), "policy-maps: {}\ninterfaces: {}\n");
  writer.join();
}

// A reload must not hold the daemon's background work for a writer that
// never comes.
TEST_F(ConfigFileTest, APipeWhoseWriterNeverComesIsRefusedAfterThePatienceGiven) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto began = Steady::now();
  try {
    ConfigFile::read(path, 0.2);
    FAIL() << "read a pipe without a writer";
  } catch (const ConfigError& e) {
    EXPECT_EQ(std::string(e.what()), path + ": its writer did not finish within 0.2 s");
  }
  EXPECT_LT(since(began), 5.0);
}

TEST_F(ConfigFileTest, ADeviceThatNeverEndsIsRefusedAtTheSizeLimit) {
  EXPECT_THROW(ConfigFile::read("/dev/zero"), ConfigError);
}

}  // namespace
}  // namespace Waymark
