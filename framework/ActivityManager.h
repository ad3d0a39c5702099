// Vix::ActivityManager: the process's one scheduler of timed work.
//
// It owns the framework clock that every deferred-work reactor takes in its
// initialisation (the logic asks for "the activity manager's clock", it is not
// handed one), and tells the event loop what is due and how long it may sleep.
// The daemon's loop runs runDue() between polls; tests swap the time source
// for a VirtualTimeSource and call runDue() themselves.
#pragma once

#include <limits>

#include "framework/Clock.h"
#include "framework/Ptr.h"
#include "framework/TimeSource.h"

namespace Vix {

class ActivityManager {
 public:
  ActivityManager();

  const Ptr<Clock>& clock() const { return clock_; }
  // REQUIRES: `source` outlives its use, or null to return to the monotonic
  // clock.
  void timeSourceIs(const TimeSource* source);

  // Runs the timers that are due, each once (at most `most` of them);
  // returns how many ran.
  int runDue(int most = std::numeric_limits<int>::max()) const { return clock_->runDue(most); }
  // Seconds the event loop may sleep before a timer is due: 0 when one is due,
  // kNever when none is armed.
  double sleepTime() const;

 private:
  MonotonicTimeSource monotonic_;
  Ptr<Clock> clock_;
};

ActivityManager& activityManager();

// The framework clock's current time in seconds.
inline double now() { return activityManager().clock()->now(); }

}  // namespace Vix
