// One waymarkd per state file: the second is refused and told who holds it,
// and the lock goes with its holder.
#include "control/InstanceLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

namespace waymark::test {
namespace {

class InstanceLockTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(dir_); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  const std::string dir_ = "/tmp/wm-lock-" + std::to_string(::getpid());
  const std::string state_ = dir_ + "/run/state.json";
};

TEST_F(InstanceLockTest, ASecondHolderIsRefusedWithTheFirstOnesProcess) {
  std::string error;
  std::optional<Waymark::InstanceLock> first(std::in_place);
  ASSERT_TRUE(first->take(state_, &error)) << error;
  Waymark::InstanceLock second;
  EXPECT_FALSE(second.take(state_, &error));
  EXPECT_NE(error.find("(pid " + std::to_string(::getpid()) + ")"), std::string::npos) << error;
  first.reset();
  EXPECT_TRUE(second.take(state_, &error)) << error;
}

TEST_F(InstanceLockTest, OtherStateFilesAreOtherLocks) {
  std::string error;
  Waymark::InstanceLock a;
  Waymark::InstanceLock b;
  EXPECT_TRUE(a.take(state_, &error));
  EXPECT_TRUE(b.take(dir_ + "/other.json", &error));
}

}  // namespace
}  // namespace waymark::test
