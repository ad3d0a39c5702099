#include "framework/Clock.h"

#include <algorithm>

namespace Vix {

double Clock::timeMinEarliest() const {
  double earliest = kNever;
  notify<NotifieeConst>([&](NotifieeConst& n) { earliest = std::min(earliest, n.timeMin()); });
  return earliest;
}

int Clock::runDue(int most) const {
  const double t = now();
  int fired = 0;
  notify<NotifieeConst>([&](NotifieeConst& n) {
    if (n.timeMin() > t || fired >= most) return;
    n.timeMinIs(kNever);
    ++fired;
    n.onTime();
  });
  return fired;
}

}  // namespace Vix
