// Pbr::ClassCommonData: the plug-in's data for one class of a policy: the
// nexthop its rules mark for (nexthopValue, unset when there is none),
// whether it only lets traffic pass (passthroughConfigured), and the class's
// nexthop selector (masterNexthopSm), which keeps nexthopValue current. The
// iptables side reads both values, through ClassForwarding, when it writes
// the class's rules.
#pragma once

#include <string>

#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "iptables/ClassForwarding.h"
#include "net/IpGenAddr.h"
#include "plugin/MasterNexthopSm.h"
#include "policymap/AclConfig.h"
#include "policymap/ClassMapSmCommonData.h"
#include "policymap/ClassMapSubConfig.h"

namespace Pbr {

class ClassCommonData : public ClassForwarding {
 public:
  class NotifieeConst : public Vix::Notifiee<ClassCommonData> {
   public:
    virtual void onNexthopValue() {}
    virtual void onPassthroughConfigured() {}
  };

  ClassCommonData(const std::string& name,
                  const Vix::Ptr<const PolicyMap::ClassMapSubConfig>& classMap,
                  const Vix::Ptr<const Acl::Config>& aclConfig)
      : ClassForwarding(name, classMap, aclConfig) {}

  const Velnet::IpGenAddr& nexthopValue() const override { return nexthopValue_; }
  void nexthopValueIs(const Velnet::IpGenAddr& nexthop) {
    if (nexthop == nexthopValue_) return;
    nexthopValue_ = nexthop;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onNexthopValue(); });
  }

  const Vix::Ptr<MasterNexthopSm>& masterNexthopSm() const { return masterNexthopSm_; }
  // Builds the selector for this class.
  const Vix::Ptr<MasterNexthopSm>& masterNexthopSmIs(
      const Vix::Ptr<NexthopTableManager>& nexthopTableManager) {
    masterNexthopSm_ = Vix::make<MasterNexthopSm>(this, nexthopTableManager);
    return masterNexthopSm_;
  }
  // Removes the selector and hands it back.
  Vix::Ptr<MasterNexthopSm> masterNexthopSmDel() { return std::move(masterNexthopSm_); }

  bool passthroughConfigured() const override { return passthroughConfigured_; }
  void passthroughConfiguredIs(bool passthrough) {
    if (passthrough == passthroughConfigured_) return;
    passthroughConfigured_ = passthrough;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onPassthroughConfigured(); });
  }

 private:
  Velnet::IpGenAddr nexthopValue_;
  bool passthroughConfigured_ = false;
  Vix::Ptr<MasterNexthopSm> masterNexthopSm_;
};

}  // namespace Pbr
