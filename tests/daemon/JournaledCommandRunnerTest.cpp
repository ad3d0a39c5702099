// The state file is written ahead of every rule and route the daemon adds.
#include "daemon/JournaledCommandRunner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace Waymark {
namespace {

// Reads the state file as a restart would, at the moment each command runs.
class FileCheckingRunner : public Pbr::CommandRunner {
 public:
  explicit FileCheckingRunner(std::string path) : path_(std::move(path)) {}
  int run(const std::string& command) override {
    StateFile seen(path_);
    seen.load();
    seenPriorities.push_back(seen.priorities());
    seenTables.push_back(seen.tables());
    commands.push_back(command);
    return 2 << 8;
  }
  std::vector<std::set<uint32_t>> seenPriorities;
  std::vector<std::set<uint32_t>> seenTables;
  std::vector<std::string> commands;

 private:
  std::string path_;
};

class JournaledCommandRunnerTest : public ::testing::Test {
 protected:
  ~JournaledCommandRunnerTest() override { std::remove(path.c_str()); }
  const std::string path = "/tmp/waymark-journal-test-" + std::to_string(getpid()) + ".json";
  StateFile state{path};
  FileCheckingRunner next{path};
  JournaledCommandRunner runner{state, next};
};

TEST_F(JournaledCommandRunnerTest, ARuleAndARouteAreOnFileBeforeTheyAreAdded) {
  EXPECT_EQ(runner.run("ip route add default via 192.0.2.1 table 101"), 2 << 8);
  runner.run("ip -6 rule add priority 7 fwmark 3 lookup 102");
  EXPECT_EQ(next.seenTables[0], (std::set<uint32_t>{101}));
  EXPECT_EQ(next.seenPriorities[1], (std::set<uint32_t>{7}));
  EXPECT_EQ(next.seenTables[1], (std::set<uint32_t>{101, 102}));
  EXPECT_EQ(next.commands[1], "ip -6 rule add priority 7 fwmark 3 lookup 102");
}

TEST_F(JournaledCommandRunnerTest, DeletionsAreNotJournaled) {
  runner.run("ip rule del priority 9");
  runner.run("ip route del table 300");
  EXPECT_TRUE(state.priorities().empty());
  EXPECT_TRUE(state.tables().empty());
  EXPECT_EQ(next.commands.size(), 2u);
}

TEST(JournaledCommandRunner, NumbersAreReadOnlyWhereACommandNamesThem) {
  EXPECT_EQ(JournaledCommandRunner::numberAfter("ip rule add priority 12 fwmark 1", "priority"),
            12u);
  EXPECT_EQ(JournaledCommandRunner::numberAfter("ip rule add fwmark 1", "priority"), std::nullopt);
  EXPECT_EQ(JournaledCommandRunner::numberAfter("ip route add table x", "table"), std::nullopt);
  EXPECT_EQ(JournaledCommandRunner::numberAfter("ip route add table 4294967296", "table"),
            std::nullopt);
}

}  // namespace
}  // namespace Waymark
