// The state journal: what a run holds survives it, releases are kept too,
// the record stays as small as what is held, and a later run tells its own
// numbers from the previous run's leftovers.
#include "kernel/StateJournal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace waymark::test {
namespace {

const Velnet::IpGenAddr kNexthop = Velnet::IpGenAddr::parse("192.0.2.1");

using Kernel::PolicyRule;
using Kernel::RouteTableId;
using Kernel::StateJournal;

class StateJournalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("wm-journal-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    path_ = (dir_ / "state.json").string();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  StateJournal reopened() const {
    StateJournal j(path_);
    j.load();
    return j;
  }
  size_t journalFileLines() const {
    std::ifstream in(path_ + ".journal");
    size_t n = 0;
    for (std::string line; std::getline(in, line);) ++n;
    return n;
  }

  std::filesystem::path dir_;
  std::string path_;
};

const PolicyRule kRule{false, 2, 2, 2};
const PolicyRule kRule6{true, 3, 3, 3};

TEST_F(StateJournalTest, WhatIsHeldAndNotReleasedIsWhatTheNextRunFinds) {
  {
    StateJournal j(path_);
    j.ruleHeld(kRule, kNexthop);
    j.ruleHeld(kRule6, kNexthop);
    j.tableHeld({false, 2});
    j.tableHeld({true, 3});
    j.ruleReleased(kRule);
    j.tableReleased({false, 2});
  }
  const StateJournal next = reopened();
  EXPECT_EQ(next.rules(), std::vector<PolicyRule>{kRule6});
  EXPECT_EQ(next.tables(), std::vector<RouteTableId>{(RouteTableId{true, 3})});
}

TEST_F(StateJournalTest, ALaterRunTellsWhatItTookAgainFromLeftovers) {
  {
    StateJournal j(path_);
    j.ruleHeld(kRule, kNexthop);
    j.ruleHeld(kRule6, kNexthop);
    j.tableHeld({false, 2});
  }
  StateJournal next = reopened();
  EXPECT_EQ(next.leftoverRules().size(), 2u);
  next.ruleHeld(kRule, kNexthop);
  EXPECT_EQ(next.leftoverRules(), std::vector<PolicyRule>{kRule6});
  EXPECT_EQ(next.leftoverTables(), std::vector<RouteTableId>{(RouteTableId{false, 2})});
  EXPECT_TRUE(next.holds(kRule));
  EXPECT_FALSE(next.holds(PolicyRule{false, 2, 2, 3}));
}

TEST_F(StateJournalTest, ThousandsOfFlapsLeaveARecordAsSmallAsWhatIsHeld) {
  StateJournal j(path_);
  j.ruleHeld(kRule6, kNexthop);
  for (uint32_t n = 2; n < 5000; ++n) {
    const PolicyRule r{false, n, n, n};
    j.ruleHeld(r, kNexthop);
    j.tableHeld({false, n});
    j.ruleReleased(r);
    j.tableReleased({false, n});
  }
  EXPECT_EQ(j.size(), 1u);
  EXPECT_LE(journalFileLines(), 70u);
  EXPECT_EQ(reopened().rules(), std::vector<PolicyRule>{kRule6});
}

TEST_F(StateJournalTest, ACutLastLineAndADamagedSnapshotLoseOnlyThemselves) {
  std::filesystem::create_directories(dir_);
  std::ofstream(path_) << "{not json";
  std::ofstream(path_ + ".journal") << "+rule 4 2 2 2\n+table 6 9\n+rule 4 7 7";
  const StateJournal j = reopened();
  EXPECT_EQ(j.rules(), std::vector<PolicyRule>{kRule});
  EXPECT_EQ(j.tables(), std::vector<RouteTableId>{(RouteTableId{true, 9})});
  ASSERT_EQ(j.problems().size(), 1u);
  EXPECT_NE(j.problems()[0].find("state.json is damaged"), std::string::npos) << j.problems()[0];
}

TEST_F(StateJournalTest, NumbersAllocationNeverHandsOutAreLeftAloneAndSaid) {
  std::filesystem::create_directories(dir_);
  // The kernel's own rules and tables (local, main, default), priority 0,
  // the mark never handed out, a table past 16 bits: none may ever be
  // deleted as waymark's.
  std::ofstream(path_) << R"({"rules": [[4, 0, 5, 7, ""], [4, 32766, 5, 254, ""],
    [6, 32767, 5, 253, ""], [4, 5, 13429, 7, ""], [4, 6, 0, 7, ""], [4, 2, 2, 2, "192.0.2.1"]],
    "tables": [[4, 254], [6, 255], [4, 0], [4, 70000], [4, 2]]})";
  std::ofstream(path_ + ".journal") << "+rule 4 32766 9 9\n+table 4 253\n+rule 6 3 3 3\n"
                                       "-table 4 254\n";
  const StateJournal j = reopened();
  EXPECT_EQ(j.rules(), (std::vector<PolicyRule>{kRule, kRule6}));
  EXPECT_EQ(j.tables(), std::vector<RouteTableId>{(RouteTableId{false, 2})});
  EXPECT_EQ(j.problems().size(), 12u);
  EXPECT_NE(j.problems()[0].find("ignored rule 4 0 5 7 in " + path_ +
                                 ": priority 0 is a number waymark never hands out"),
            std::string::npos)
      << j.problems()[0];
}

TEST_F(StateJournalTest, AnAdditionThatCannotBeWrittenIsNotRecordedUntilThereIsRoomAgain) {
  std::filesystem::create_directories(dir_);
  std::filesystem::create_symlink("/dev/full", path_ + ".journal");
  StateJournal j(path_);
  EXPECT_FALSE(j.ruleHeld(kRule, kNexthop));
  EXPECT_FALSE(j.tableHeld({false, 2}));
  EXPECT_FALSE(j.holds(kRule));
  EXPECT_NE(j.error().find("No space left on device"), std::string::npos) << j.error();

  std::filesystem::remove(path_ + ".journal");
  EXPECT_TRUE(j.ruleHeld(kRule, kNexthop));
  EXPECT_EQ(j.error(), "");
  EXPECT_EQ(reopened().rules(), std::vector<PolicyRule>{kRule});
}

TEST_F(StateJournalTest, ACompactionThatCannotBeWrittenKeepsTheSnapshotInPlace) {
  StateJournal j(path_);
  j.ruleHeld(kRule, kNexthop);
  ASSERT_TRUE(j.compact());
  std::filesystem::create_symlink("/dev/full", path_ + ".tmp");
  j.ruleHeld(kRule6, kNexthop);
  EXPECT_FALSE(j.compact());
  EXPECT_NE(j.error().find(".tmp"), std::string::npos) << j.error();
  const StateJournal next = reopened();
  EXPECT_TRUE(next.problems().empty());
  EXPECT_EQ(next.rules(), (std::vector<PolicyRule>{kRule, kRule6}));
}

TEST_F(StateJournalTest, ACompactionInterruptedBeforeTheJournalIsEmptiedChangesNothing) {
  StateJournal j(path_);
  j.ruleHeld(kRule, kNexthop);
  j.ruleHeld(kRule6, kNexthop);
  j.ruleReleased(kRule);
  const auto journal = path_ + ".journal";
  std::filesystem::copy_file(journal, dir_ / "lines");
  ASSERT_TRUE(j.compact());
  // As if the daemon died between the snapshot's rename and the truncation.
  std::filesystem::copy_file(dir_ / "lines", journal,
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(reopened().rules(), std::vector<PolicyRule>{kRule6});
}

TEST_F(StateJournalTest, AStateFileDeletedOrReplacedWhileRunningIsWrittenAgainFromMemory) {
  StateJournal j(path_);
  j.ruleHeld(kRule, kNexthop);
  ASSERT_TRUE(j.compact());
  j.ruleHeld(kRule6, kNexthop);
  EXPECT_FALSE(j.restoreIfGone());

  std::filesystem::remove(path_);
  std::filesystem::remove(path_ + ".journal");
  EXPECT_TRUE(j.restoreIfGone());
  EXPECT_EQ(reopened().rules(), (std::vector<PolicyRule>{kRule, kRule6}));
  EXPECT_FALSE(j.restoreIfGone());

  // Replaced by another file: that one is not the daemon's record.
  std::filesystem::remove(path_);
  std::ofstream(path_) << R"({"rules": [], "tables": []})";
  j.tableHeld({false, 2});
  EXPECT_TRUE(j.restoreIfGone());
  const StateJournal next = reopened();
  EXPECT_EQ(next.rules(), (std::vector<PolicyRule>{kRule, kRule6}));
  EXPECT_EQ(next.tables(), std::vector<RouteTableId>{(RouteTableId{false, 2})});
}

TEST_F(StateJournalTest, RemoveLeavesNothingBehind) {
  StateJournal j(path_);
  j.ruleHeld(kRule, kNexthop);
  j.compact();
  j.remove();
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_FALSE(std::filesystem::exists(path_ + ".journal"));
  EXPECT_EQ(reopened().size(), 0u);
}

}  // namespace
}  // namespace waymark::test
