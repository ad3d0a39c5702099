// A probe sender that keeps what it was asked to send, for the health
// monitor's tests and the router's. It refuses to send while the nexthop has
// no link-layer address (`reachable` false).
#pragma once

#include <vector>

#include "kernel/ProbeSender.h"

namespace waymark::test {

class RecordingProbeSender : public Kernel::ProbeSender {
 public:
  bool send(const Kernel::Probe& probe) override {
    if (!reachable) return false;
    sent.push_back(probe);
    return true;
  }

  std::vector<Kernel::Probe> sent;
  bool reachable = true;
};

}  // namespace waymark::test
