#include "framework/ActivityManager.h"

#include <algorithm>

namespace Vix {

ActivityManager::ActivityManager() : clock_(make<Clock>(&monotonic_)) {}

void ActivityManager::timeSourceIs(const TimeSource* source) {
  clock_->timeSourceIs(source != nullptr ? source : &monotonic_);
}

double ActivityManager::sleepTime() const {
  const double earliest = clock_->timeMinEarliest();
  if (earliest == kNever) return kNever;
  return std::max(0.0, earliest - clock_->now());
}

ActivityManager& activityManager() {
  static ActivityManager manager;
  return manager;
}

}  // namespace Vix
