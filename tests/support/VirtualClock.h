// Puts the framework clock on virtual time for the life of a test; time moves
// only when the test (or a fake that simulates a slow command) advances it.
#pragma once

#include "framework/ActivityManager.h"
#include "framework/TimeSource.h"

namespace waymark::test {

class VirtualClock {
 public:
  explicit VirtualClock(double start = 1000.0)
      : source_(start), previous_(Vix::activityManager().clock()->timeSource()) {
    Vix::activityManager().timeSourceIs(&source_);
  }
  ~VirtualClock() { Vix::activityManager().timeSourceIs(previous_); }
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  double now() const { return source_.now(); }
  const Vix::TimeSource& source() const { return source_; }
  void advance(double seconds) { source_.advance(seconds); }
  void nowIs(double t) { source_.nowIs(t); }
  // Runs the due timers once, as one pass of the event loop would.
  int runDue() const { return Vix::activityManager().runDue(); }

 private:
  Vix::VirtualTimeSource source_;
  const Vix::TimeSource* previous_;
};

}  // namespace waymark::test
