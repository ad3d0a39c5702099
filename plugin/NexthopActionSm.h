// Pbr::NexthopActionSm and Pbr::NexthopGroupActionSm: follow a class whose
// forwarding action is a set of nexthops (or a nexthop group) and hand it to
// the class's nexthop selector; a class without a selector is left alone.
#pragma once

#include <string>

#include "policymap/ActionSm.h"
#include "policymap/PbrFwdAction.h"

namespace Pbr {

class MasterNexthopSm;

class NexthopActionSm : public PolicyMap::ActionSm {
 public:
  using PolicyMap::ActionSm::ActionSm;

  void handleAction() override;
  void cleanup() override;
  std::string traceForm() const;

 protected:
  virtual const char* kind() const { return "NexthopActionSm"; }
  virtual void give(MasterNexthopSm& selector, const Vix::Ptr<const PbrFwdAction>& action);
  MasterNexthopSm* selector() const;
};

class NexthopGroupActionSm : public NexthopActionSm {
 public:
  using NexthopActionSm::NexthopActionSm;

 protected:
  const char* kind() const override { return "NexthopGroupActionSm"; }
  void give(MasterNexthopSm& selector, const Vix::Ptr<const PbrFwdAction>& action) override;
};

}  // namespace Pbr
