#include "framework/Clock.h"

#include <gtest/gtest.h>

#include <functional>

#include "framework/ActivityManager.h"
#include "tests/support/VirtualClock.h"

namespace {

using Vix::kNever;
using waymark::test::VirtualClock;

class Timer : public Vix::ClockNotifiee {
 public:
  void onTime() override {
    ++fired;
    if (then) then();
  }
  int fired = 0;
  std::function<void()> then;
};

class ClockTest : public ::testing::Test {
 protected:
  ClockTest() { timer->notifierIs(Vix::activityManager().clock()); }
  VirtualClock clock{100.0};
  Vix::Ptr<Timer> timer = Vix::make<Timer>();
};

TEST_F(ClockTest, ANewTimerIsParkedAndNeverFires) {
  EXPECT_EQ(timer->timeMin(), kNever);
  EXPECT_EQ(Vix::activityManager().sleepTime(), kNever);
  clock.advance(1e9);
  EXPECT_EQ(clock.runDue(), 0);
  EXPECT_EQ(timer->fired, 0);
}

TEST_F(ClockTest, ATimerArmedAtNowFiresOnceOnTheNextPassAndIsParked) {
  timer->timeMinIs(Vix::now());
  EXPECT_EQ(Vix::activityManager().sleepTime(), 0.0);
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(timer->fired, 1);
  EXPECT_EQ(timer->timeMin(), kNever);
  EXPECT_EQ(clock.runDue(), 0);
}

TEST_F(ClockTest, AFutureTimerIsDueOnlyWhenTimeReachesIt) {
  timer->timeMinIs(102.5);
  EXPECT_DOUBLE_EQ(Vix::activityManager().sleepTime(), 2.5);
  clock.advance(2.0);
  EXPECT_EQ(clock.runDue(), 0);
  clock.advance(0.5);
  EXPECT_EQ(clock.runDue(), 1);
}

TEST_F(ClockTest, ATimerThatRearmsItselfRunsAgainOnTheNextPassNotTheSame) {
  timer->then = [&] {
    if (timer->fired < 3) timer->timeMinIs(Vix::now());
  };
  timer->timeMinIs(Vix::now());
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(clock.runDue(), 0);
  EXPECT_EQ(timer->fired, 3);
}

TEST_F(ClockTest, AParkedTimerIsNotWokenWhenAnotherIsArmed) {
  const Vix::Ptr<Timer> other = Vix::make<Timer>();
  other->notifierIs(Vix::activityManager().clock());
  other->timeMinIs(Vix::now());
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(other->fired, 1);
  EXPECT_EQ(timer->fired, 0);
}

TEST_F(ClockTest, AtMostTheAskedNumberOfDueTimersRunPerPass) {
  const Vix::Ptr<Timer> other = Vix::make<Timer>();
  other->notifierIs(Vix::activityManager().clock());
  timer->timeMinIs(Vix::now());
  other->timeMinIs(Vix::now());
  EXPECT_EQ(Vix::activityManager().runDue(1), 1);
  EXPECT_EQ(timer->fired + other->fired, 1);
  EXPECT_EQ(Vix::activityManager().runDue(1), 1);
  EXPECT_EQ(timer->fired + other->fired, 2);
}

TEST_F(ClockTest, AVirtualClockGivesBackThePreviousTimeSource) {
  {
    VirtualClock inner(5.0);
    EXPECT_EQ(Vix::now(), 5.0);
  }
  EXPECT_EQ(Vix::now(), 100.0);
}

}  // namespace
