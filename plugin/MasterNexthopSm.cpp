#include "plugin/MasterNexthopSm.h"

#include "framework/Trace.h"
#include "plugin/ClassCommonData.h"

namespace Pbr {

// Follows one forwarding action's nexthop collection.
class MasterNexthopSm::ActionReactor : public PbrFwdAction::NotifieeConst {
 public:
  explicit ActionReactor(MasterNexthopSm* owner) : owner_(owner) {}
  void onNexthop(const Velnet::IpGenAddr&) override { owner_->handleNexthop(); }

 private:
  MasterNexthopSm* owner_;
};

// Hears the manager's programmed set change.
class MasterNexthopSm::ManagerReactor : public NexthopTableManager::NotifieeConst {
 public:
  explicit ManagerReactor(MasterNexthopSm* owner) : owner_(owner) {}
  void onProgrammed(const Velnet::IpGenAddr& addr) override { owner_->handleProgrammed(addr); }

 private:
  MasterNexthopSm* owner_;
};

MasterNexthopSm::MasterNexthopSm(ClassCommonData* classCommonData,
                                 const Vix::Ptr<NexthopTableManager>& nexthopTableManager)
    : classCommonData_(classCommonData),
      nexthopTableManager_(nexthopTableManager),
      nexthop_(Vix::make<ActionReactor>(this)),
      nexthopGroup_(Vix::make<ActionReactor>(this)),
      managerReactor_(Vix::make<ManagerReactor>(this)) {
  managerReactor_->notifierIs(nexthopTableManager_.get());
}

MasterNexthopSm::~MasterNexthopSm() = default;

const PbrFwdAction* MasterNexthopSm::nexthop() const { return nexthop_->notifier(); }

const PbrFwdAction* MasterNexthopSm::nexthopGroup() const { return nexthopGroup_->notifier(); }

void MasterNexthopSm::nexthopIs(const Vix::Ptr<const PbrFwdAction>& action) {
  if (action.get() == nexthop()) return;
  nexthop_->notifierIs(action.get());
  handleNexthop();
}

void MasterNexthopSm::nexthopGroupIs(const Vix::Ptr<const PbrFwdAction>& action) {
  if (action.get() == nexthopGroup()) return;
  nexthopGroup_->notifierIs(action.get());
  handleNexthop();
}

void MasterNexthopSm::updateNexthopManager(const Vix::Ptr<const PbrFwdAction>& action, bool add) {
  VIX_TRACE(8, __PRETTY_FUNCTION__);
  if (!action) return;
  // Counting out is the same addition with minus one.
  const uint32_t delta = add ? 1u : 0xffffffffu;
  for (const auto& addr : action->nexthops()) {
    VIX_TRACE(4, "Nexthop address " << addr);
    nexthopTableManager_->nexthopInc(addr, delta);
  }
}

void MasterNexthopSm::handleNexthop() {
  VIX_TRACE(8, __PRETTY_FUNCTION__);
  if (!active_) return;
  const Vix::Ptr<const PbrFwdAction> current(nexthop());
  if (!current && nexthopGroup() != nullptr) {
    // Groups are resolved by the platform; nothing is selected over them.
    oldNexthop_ = nullptr;
    return;
  }
  if (!current || current != oldNexthop_) {
    updateNexthopManager(current, true);
    updateNexthopManager(oldNexthop_, false);
  }
  if (current && !current->nexthops().empty()) {
    handleProgrammed(current->nexthops().front());
  } else {
    classCommonData_->nexthopValueIs(Velnet::IpGenAddr());
    classCommonData_->updateAclActionsInc(1);
  }
  oldNexthop_ = current;
}

void MasterNexthopSm::handleProgrammed(const Velnet::IpGenAddr& addr) {
  const bool programmed = nexthopTableManager_->programmed(addr);
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << addr.stringValue() << (programmed ? " " : " not ")
                                   << "programmed");
  if (!active_) return;
  const PbrFwdAction* current = nexthop();
  if (current == nullptr || !current->nexthop(addr)) return;
  // The address that triggered the reaction only gates the work: the first
  // programmed nexthop in configuration order is chosen.
  Velnet::IpGenAddr chosen;
  for (const auto& candidate : current->nexthops()) {
    if (nexthopTableManager_->programmed(candidate)) {
      chosen = candidate;
      break;
    }
  }
  if (chosen == classCommonData_->nexthopValue()) return;
  VIX_TRACE(4, "Setting " << classCommonData_->name() << " nexthop to " << chosen);
  classCommonData_->nexthopValueIs(chosen);
  classCommonData_->updateAclActionsInc(1);
}

void MasterNexthopSm::cleanup() {
  activeIs(false);
  nexthopIs(nullptr);
  activeIs(true);
  handleNexthop();
}

}  // namespace Pbr
