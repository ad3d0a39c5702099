// Ip::IpIntfStatus: the IPv4 addresses of one interface as the router sees
// them: its primary address (activeAddrWithMask) and its secondaries (active
// while their entry exists and is true). Filled from rtnetlink by the daemon
// and by plain mutators in tests; watched by the nexthop table manager.
#pragma once

#include <map>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "net/IpAddrWithMask.h"

namespace Ip {

class IpIntfStatus : public Vix::Entity {
 public:
  using Secondaries = std::map<Velnet::IpAddrWithMask, bool>;

  class NotifieeConst : public Vix::Notifiee<IpIntfStatus> {
   public:
    virtual void onActiveAddrWithMask() {}
    virtual void onActiveSecondaryWithMask(const Velnet::IpAddrWithMask& /*addr*/) {}
  };

  explicit IpIntfStatus(const Velnet::IntfId& intfId) : intfId_(intfId) {}

  const Velnet::IntfId& intfId() const { return intfId_; }
  const Velnet::IntfId& key() const { return intfId_; }

  // 0.0.0.0/0 when the interface has no primary address.
  const Velnet::IpAddrWithMask& activeAddrWithMask() const { return active_; }
  void activeAddrWithMaskIs(const Velnet::IpAddrWithMask& addr);

  // Ordered by address with mask.
  const Secondaries& activeSecondaryWithMask() const { return secondaries_; }
  bool activeSecondaryWithMask(const Velnet::IpAddrWithMask& addr) const;
  void activeSecondaryWithMaskIs(const Velnet::IpAddrWithMask& addr, bool active);
  void activeSecondaryWithMaskDel(const Velnet::IpAddrWithMask& addr);

  // A copy of the current values that nobody watches.
  Vix::Ptr<IpIntfStatus> snapshot() const;

 private:
  const Velnet::IntfId intfId_;
  Velnet::IpAddrWithMask active_;
  Secondaries secondaries_;
};

}  // namespace Ip
