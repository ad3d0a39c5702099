// Waymark::MangleRebuild: the mangle tables written again from the current
// configuration: the policy framework programs everything again while the
// kernel side holds what is written, then writes it in place as one
// transaction per family, changing only waymark's part. After drift, on
// resync, and to try again a start whose rules iptables did not take. The
// router drives it a turn at a time; it also keeps the start's attempts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "framework/Clock.h"
#include "plugin/AclPlugin.h"
#include "sync/RouterKernel.h"

namespace Waymark {

class MangleRebuild {
 public:
  using Event = std::function<void(const std::string& kind, const std::string& text)>;

  // REQUIRES: `kernel` outlives it.
  MangleRebuild(RouterKernel& kernel, Event event) : kernel_(kernel), event_(std::move(event)) {}

  void begin(Pbr::AclPlugin& plugin, const std::string& cause);
  // One step, once the plug-in is idle (`pluginIdle`); the event of its end
  // says whether it was written.
  void advance(const Pbr::AclPlugin& plugin, bool pluginIdle);
  bool running() const { return step_ != Step::none; }
  uint32_t rebuilds() const { return rebuilds_; }

  // Whether the start's rules are in the kernel, once they were written;
  // when not, schedules another attempt (1, 2, 4 ... 30 s later) or, when
  // due at `now`, begins it.
  bool startLanded(Pbr::AclPlugin& plugin, double now);
  // When the next attempt of the start is due (kNever: none).
  double startRetryDue() const { return start_.due; }
  // The start's attempts so far, and why the last failed ("" when none did).
  uint32_t startAttempts() const { return start_.attempts + 1; }
  const std::string& startError() const { return start_.error; }

  static uint32_t batchesFailed(const Pbr::AclPlugin& plugin);
  // The latest error iptables reported, of either family.
  static std::string lastBatchError(const Pbr::AclPlugin& plugin);

 private:
  enum class Step { none, programming, writing };
  RouterKernel& kernel_;
  const Event event_;
  Step step_ = Step::none;
  std::string cause_;
  uint32_t failedBefore_ = 0;
  uint32_t rebuilds_ = 0;
  struct StartAttempts {
    uint32_t failedBefore = 0;  // batches failed before the latest attempt
    uint32_t attempts = 0;
    std::string error;         // "" while no attempt failed
    double due = Vix::kNever;  // when the next attempt begins
  };
  StartAttempts start_;
};

}  // namespace Waymark
