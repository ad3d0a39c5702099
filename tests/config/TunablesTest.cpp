// The tunables: one set of names, ranges and defaults for the file and for
// `waymarkctl set`.
#include "config/Tunables.h"

#include <gtest/gtest.h>

namespace Waymark {
namespace {

TEST(TunablesTest, DefaultsAreThePluginsOwn) {
  const Tunables t;
  EXPECT_EQ(t.nexthopProgrammingTimeLimit, 0.5);
  EXPECT_EQ(t.rulesPerInvocation, 300u);
  EXPECT_EQ(t.ruleProgrammingTimeLimit, 0.5);
  EXPECT_EQ(t.commandExecutor, CommandExecutor::netlink);
}

TEST(TunablesTest, AValueOutOfRangeChangesNothingAndSaysWhy) {
  Tunables t;
  EXPECT_EQ(t.assign("rules-per-invocation", "100001"),
            "rules-per-invocation must be a whole number from 1 to 100000, not '100001'");
  EXPECT_EQ(t.assign("nexthop-programming-time-limit", "-1"),
            "nexthop-programming-time-limit must be a number of seconds from 0 to 3600, not '-1'");
  EXPECT_EQ(t.assign("command-executor", "fork"),
            "command-executor must be shell or netlink, not 'fork'");
  EXPECT_NE(t.assign("speed", "11").find("unknown tunable 'speed'"), std::string::npos);
  EXPECT_EQ(t, Tunables());
  EXPECT_EQ(t.assign("rule-programming-time-limit", "0"), "");
  EXPECT_EQ(t.assign("command-executor", "shell"), "");
  EXPECT_EQ(t.ruleProgrammingTimeLimit, 0.0);
  EXPECT_EQ(t.commandExecutor, CommandExecutor::shell);
}

}  // namespace
}  // namespace Waymark
