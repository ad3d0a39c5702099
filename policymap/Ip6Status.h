// Ip6::Status: the IPv6 address status of every interface, keyed by device
// name; the IPv6 twin of Ip::Status. Watchers hear onIntf when an
// interface's status is created or removed.
#pragma once

#include "framework/Entity.h"
#include "framework/HashMap.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "policymap/Ip6IntfStatus.h"

namespace Ip6 {

class Status : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<Status> {
   public:
    virtual void onIntf(const Velnet::IntfId& /*intfId*/) {}
  };

  Vix::Ptr<IntfStatus> intf(const Velnet::IntfId& intfId) const { return intf_.member(intfId); }
  // The interface's status, created when missing.
  Vix::Ptr<IntfStatus> intfIs(const Velnet::IntfId& intfId) {
    if (auto existing = intf_.member(intfId)) return existing;
    auto created = Vix::make<IntfStatus>(intfId);
    intf_.newMember(created);
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onIntf(intfId); });
    return created;
  }
  void intfDel(const Velnet::IntfId& intfId) {
    if (!intf_.memberDel(intfId)) return;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onIntf(intfId); });
  }
  const Vix::HashMap<IntfStatus, Velnet::IntfId>& intfMap() const { return intf_; }

 private:
  Vix::HashMap<IntfStatus, Velnet::IntfId> intf_;
};

}  // namespace Ip6
