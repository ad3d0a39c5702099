// Pbr::NoActionSm: follows a class whose forwarding action has no target:
// the class lets its traffic pass (passthroughConfigured) while the state
// machine lives. Turning a class that had a nexthop into a passthrough
// rewrites the whole policy; a fresh passthrough class only rewrites its own
// rules.
#pragma once

#include <string>

#include "policymap/ActionSm.h"

namespace Pbr {

class NoActionSm : public PolicyMap::ActionSm {
 public:
  using PolicyMap::ActionSm::ActionSm;

  void handleInitialized() override;
  void cleanup() override;
  // "NoActionSm(policy, class)".
  std::string traceForm() const;

 private:
  void passthroughIs(bool passthrough);
};

}  // namespace Pbr
