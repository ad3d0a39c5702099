#include "framework/Errors.h"

#include <gtest/gtest.h>

#include "framework/Ptr.h"
#include "framework/PtrInterface.h"
#include "framework/String.h"

namespace {

class Thing : public Vix::PtrInterface {
 public:
  int value = 7;
};

TEST(ErrorsTest, ARangeErrorEndsInNotAllowed) {
  try {
    Vix::notAllowed("TcpFlag::value > 0x3f");
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "TcpFlag::value > 0x3f not allowed");
  }
}

TEST(ErrorsTest, DereferencingAnEmptyPtrFailsWithNullValidPtr) {
  const Vix::Ptr<Thing> empty;
  try {
    (void)empty->value;
    FAIL() << "no error";
  } catch (const Vix::NullPtrError& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
  EXPECT_EQ(Vix::make<Thing>()->value, 7);
}

TEST(ErrorsTest, APtrCastToAnotherTypeIsNull) {
  class Other : public Vix::PtrInterface {};
  const Vix::Ptr<Vix::PtrInterface> thing = Vix::make<Thing>();
  EXPECT_TRUE(Vix::ptrCast<Thing>(thing));
  EXPECT_FALSE(Vix::ptrCast<Other>(thing));
}

TEST(ErrorsDeathTest, AFailedAssertionAbortsWithItsText) {
  EXPECT_DEATH(VIX_ASSERT(1 + 1 == 3, "forceProgram || !programmed( addr )"),
               "forceProgram \\|\\| !programmed\\( addr \\)");
}

TEST(ErrorsTest, FormatFillsPrintfFields) {
  EXPECT_EQ(Vix::format("cell/%d/pbr/status/iptables", 42), "cell/42/pbr/status/iptables");
  EXPECT_EQ(Vix::format("PendingNexthopOperation(%d)", -3), "PendingNexthopOperation(-3)");
  EXPECT_EQ(Vix::format("plain"), "plain");
}

TEST(ErrorsTest, QuotedTextEscapesWhatCouldBreakAMessage) {
  EXPECT_EQ(Vix::quoted("eth0"), "'eth0'");
  EXPECT_EQ(Vix::quoted("a'b\\c\nd\x01\xff"), "'a\\'b\\\\c\\nd\\x01\\xff'");
}

}  // namespace
