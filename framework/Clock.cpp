#include "framework/Clock.h"

#include <algorithm>

namespace Vix {

double Clock::timeMinEarliest() const {
  double earliest = kNever;
  notify<NotifieeConst>([&](NotifieeConst& n) { earliest = std::min(earliest, n.timeMin()); });
  return earliest;
}

int Clock::runDue() const {
  const double t = now();
  int fired = 0;
  notify<NotifieeConst>([&](NotifieeConst& n) {
    if (n.timeMin() > t) return;
    n.timeMinIs(kNever);
    ++fired;
    n.onTime();
  });
  return fired;
}

}  // namespace Vix
