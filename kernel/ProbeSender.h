// Kernel::ProbeSender: the seam between the nexthops' health checks and the
// network. The health monitor decides what to probe and when; a sender puts
// each echo request on the wire (IcmpProber) or records it (tests).
#pragma once

#include <cstdint>
#include <string>

#include "net/IpGenAddr.h"

namespace Kernel {

// One echo request of a health-check round.
struct Probe {
  // Ties the answer to the probe; unique among the probes awaiting one.
  uint16_t sequence = 0;
  Velnet::IpGenAddr target;
  // The probe leaves through `interface` to this nexthop's link-layer
  // address, whatever the routing tables say about `target`.
  Velnet::IpGenAddr nexthop;
  std::string interface;
  // The interface's address in the nexthop's subnet: the answer comes back
  // to it.
  Velnet::IpGenAddr source;
};

class ProbeSender {
 public:
  virtual ~ProbeSender() = default;
  // Sends `probe`; false when it could not leave (no link-layer address for
  // the nexthop yet, the interface gone), which counts as unanswered.
  virtual bool send(const Probe& probe) = 0;
};

}  // namespace Kernel
