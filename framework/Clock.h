// Vix::Clock: the framework's time and its timers.
//
// A clock notifiee (ClockNotifiee) asks to be woken at an absolute time with
// timeMinIs(); it is due when timeMin <= now. Arming means setting timeMin to
// now (run on the next pass of the event loop), parking means setting it to
// +infinity. A timer fires once per arming: it is parked just before onTime()
// runs, and onTime() arms it again if more work remains, so that finished work
// never spins the loop.
#pragma once

#include <limits>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/TimeSource.h"

namespace Vix {

constexpr double kNever = std::numeric_limits<double>::infinity();

class Clock : public Entity {
 public:
  class NotifieeConst;

  // REQUIRES: `source` outlives the clock or is replaced before it goes.
  explicit Clock(const TimeSource* source) : source_(source) {}

  double now() const { return source_->now(); }
  const TimeSource* timeSource() const { return source_; }
  void timeSourceIs(const TimeSource* source) { source_ = source; }

  // The earliest wake-up time of the registered timers; kNever when none wants
  // one.
  double timeMinEarliest() const;
  // Fires the timers that are due now, each at most once and at most `most`
  // of them; returns how many.
  int runDue(int most = std::numeric_limits<int>::max()) const;

 private:
  const TimeSource* source_;
};

class Clock::NotifieeConst : public Notifiee<Clock> {
 public:
  double timeMin() const { return timeMin_; }
  void timeMinIs(double t) { timeMin_ = t; }
  virtual void onTime() = 0;

 private:
  double timeMin_ = kNever;
};

using ClockNotifiee = Clock::NotifieeConst;

}  // namespace Vix
