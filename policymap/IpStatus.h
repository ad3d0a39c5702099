// Ip::Status: the IPv4 address status of every interface, keyed by device
// name. An interface appears when it has address status and disappears when
// its link is deleted; watchers hear both through onIpIntfStatus.
#pragma once

#include "framework/Entity.h"
#include "framework/HashMap.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "policymap/IpIntfStatus.h"

namespace Ip {

class Status : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<Status> {
   public:
    // The interface's status was created or removed.
    virtual void onIpIntfStatus(const Velnet::IntfId& /*intfId*/) {}
  };

  Vix::Ptr<IpIntfStatus> ipIntfStatus(const Velnet::IntfId& intfId) const {
    return ipIntfStatus_.member(intfId);
  }
  // The interface's status, created when missing.
  Vix::Ptr<IpIntfStatus> ipIntfStatusIs(const Velnet::IntfId& intfId) {
    if (auto existing = ipIntfStatus_.member(intfId)) return existing;
    auto created = Vix::make<IpIntfStatus>(intfId);
    ipIntfStatus_.newMember(created);
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onIpIntfStatus(intfId); });
    return created;
  }
  void ipIntfStatusDel(const Velnet::IntfId& intfId) {
    if (!ipIntfStatus_.memberDel(intfId)) return;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onIpIntfStatus(intfId); });
  }
  const Vix::HashMap<IpIntfStatus, Velnet::IntfId>& ipIntfStatusMap() const {
    return ipIntfStatus_;
  }

 private:
  Vix::HashMap<IpIntfStatus, Velnet::IntfId> ipIntfStatus_;
};

}  // namespace Ip
