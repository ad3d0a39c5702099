#include "framework/TimeSource.h"

#include <time.h>

namespace Vix {

double MonotonicTimeSource::now() const {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace Vix
