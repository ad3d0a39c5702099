// Where the framework clock reads the time: the monotonic clock in the daemon,
// a settable virtual time in tests (and in benchmarks that simulate the cost
// of kernel commands).
#pragma once

namespace Vix {

class TimeSource {
 public:
  virtual ~TimeSource() = default;
  // Seconds on a monotonic scale.
  virtual double now() const = 0;
};

class MonotonicTimeSource : public TimeSource {
 public:
  double now() const override;
};

// Time that moves only when told to.
class VirtualTimeSource : public TimeSource {
 public:
  explicit VirtualTimeSource(double start = 0.0) : now_(start) {}
  double now() const override { return now_; }
  void nowIs(double t) { now_ = t; }
  void advance(double seconds) { now_ += seconds; }

 private:
  double now_;
};

}  // namespace Vix
