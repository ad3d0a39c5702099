// Pbr::MasterNexthopSm: a class's nexthop selector. It counts the nexthops
// of the class's current forwarding action into the nexthop table manager,
// which then programs them, and chooses the first of them, in the action's
// configuration order, that the manager reports programmed: the nexthop the
// class's rules mark for (the class's nexthopValue, unset when none
// qualifies). A replaced action is counted in before the old one is counted
// out, so a nexthop both share never drops to no reference.
#pragma once

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IpGenAddr.h"
#include "nexthop/NexthopTableManager.h"
#include "policymap/PbrFwdAction.h"

namespace Pbr {

class ClassCommonData;

class MasterNexthopSm : public Vix::Entity {
 public:
  // REQUIRES: `classCommonData` owns this selector and outlives it.
  MasterNexthopSm(ClassCommonData* classCommonData,
                  const Vix::Ptr<NexthopTableManager>& nexthopTableManager);
  ~MasterNexthopSm() override;

  ClassCommonData* classCommonData() const { return classCommonData_; }
  const Vix::Ptr<NexthopTableManager>& nexthopTableManager() const { return nexthopTableManager_; }

  // The class's forwarding actions; null to clear.
  const PbrFwdAction* nexthop() const;
  void nexthopIs(const Vix::Ptr<const PbrFwdAction>& action);
  const PbrFwdAction* nexthopGroup() const;
  void nexthopGroupIs(const Vix::Ptr<const PbrFwdAction>& action);
  const Vix::Ptr<const PbrFwdAction>& oldNexthop() const { return oldNexthop_; }

  bool active() const { return active_; }
  void activeIs(bool active) { active_ = active; }

  void handleNexthop();
  void handleProgrammed(const Velnet::IpGenAddr& addr);
  void updateNexthopManager(const Vix::Ptr<const PbrFwdAction>& action, bool add);
  // Counts the class's nexthops out through the normal path.
  void cleanup();

 private:
  class ActionReactor;
  class ManagerReactor;

  ClassCommonData* const classCommonData_;
  const Vix::Ptr<NexthopTableManager> nexthopTableManager_;
  Vix::Ptr<ActionReactor> nexthop_;
  Vix::Ptr<ActionReactor> nexthopGroup_;
  Vix::Ptr<ManagerReactor> managerReactor_;
  bool active_ = false;
  Vix::Ptr<const PbrFwdAction> oldNexthop_;
};

}  // namespace Pbr
