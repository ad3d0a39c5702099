// The state file and its journal: what one run records, the next one reads.
#include "daemon/StateFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace Waymark {
namespace {

class StateFileTest : public ::testing::Test {
 protected:
  ~StateFileTest() override { StateFile(path).remove(); }
  // What a restart would read.
  StateFile reread() const {
    StateFile s(path);
    s.load();
    return s;
  }
  static bool exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

  const std::string path = "/tmp/waymark-state-test-" + std::to_string(getpid()) + ".json";
  StateFile state{path};
  std::string error;
};

TEST_F(StateFileTest, JournaledNumbersReadBackBeforeAndAfterASave) {
  ASSERT_TRUE(state.journal({7}, {101}, &error)) << error;
  EXPECT_EQ(reread().priorities(), (std::set<uint32_t>{7}));
  EXPECT_EQ(reread().tables(), (std::set<uint32_t>{101}));
  ASSERT_TRUE(state.save(&error)) << error;
  EXPECT_FALSE(exists(state.journalPath()));
  ASSERT_TRUE(state.journal({7}, {102}, &error)) << error;
  EXPECT_EQ(reread().priorities(), (std::set<uint32_t>{7}));
  EXPECT_EQ(reread().tables(), (std::set<uint32_t>{101, 102}));
}

TEST_F(StateFileTest, OnlyNewNumbersReachTheJournal) {
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(state.journal({7}, {101, 102}, &error)) << error;
  std::ifstream in(state.journalPath());
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "priority 7\ntable 101\ntable 102\n");
}

TEST_F(StateFileTest, AJournalLineThatDoesNotReadIsSkipped) {
  std::ofstream(state.journalPath()) << "table 5\ntable x\npriority 4294967296\nbogus 3\nprior";
  EXPECT_EQ(reread().tables(), (std::set<uint32_t>{5}));
  EXPECT_TRUE(reread().priorities().empty());
}

TEST_F(StateFileTest, RemoveDeletesTheFileAndItsJournal) {
  ASSERT_TRUE(state.save(&error)) << error;
  ASSERT_TRUE(state.journal({1}, {}, &error)) << error;
  state.remove();
  EXPECT_FALSE(exists(path));
  EXPECT_FALSE(exists(state.journalPath()));
  EXPECT_TRUE(reread().priorities().empty());
}

}  // namespace
}  // namespace Waymark
