// Follows one interface's IPv4 addresses for the nexthop table manager and
// tells it which of them are valid connected subnets.
//
// Single changes are handled as they come: a new primary address first
// withdraws the one handled before it, and a secondary that comes or goes is
// re-judged by itself. The full pass (handleAll) runs when the reactor starts
// and, with clean-up, when it is torn down; it also withdraws addresses that
// vanished while notifications were off, by comparing with the snapshot of
// the last pass.
#pragma once

#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "net/IpAddrWithMask.h"
#include "policymap/IpIntfStatus.h"

namespace Pbr {

class NexthopTableManager;

class VixIpIntfStatus : public Ip::IpIntfStatus::NotifieeConst {
 public:
  VixIpIntfStatus(const Velnet::IntfId& intfId, NexthopTableManager* manager)
      : intfId_(intfId), nexthopTableManager_(manager) {}
  ~VixIpIntfStatus() override { vixDoZombieReactors(true); }

  const Velnet::IntfId& key() const { return intfId_; }
  const Velnet::IntfId& intfId() const { return intfId_; }
  const Vix::Ptr<const Ip::IpIntfStatus>& oldStatus() const { return oldStatus_; }
  const Velnet::IpAddrWithMask& currActive() const { return currActive_; }

  void onActiveAddrWithMask() override { handlePrimaryAddr(); }
  void onActiveSecondaryWithMask(const Velnet::IpAddrWithMask& addr) override {
    vix_handleIpIntfStatus_activeSecondaryWithMask(addr);
  }

  void handlePrimaryAddr();
  void vix_handleIpIntfStatus_activeSecondaryWithMask(const Velnet::IpAddrWithMask& addr);
  // The full pass over every address; with `cleanup` every address is
  // withdrawn.
  void handleAll(bool cleanup);
  // The full pass without clean-up.
  void vix_handleIpIntfStatus() { handleAll(false); }

 protected:
  void handleNotifier() override { handlePrimaryAddr(); }
  void vixHandleZombie(bool zombie) override;

 private:
  const Velnet::IntfId intfId_;
  NexthopTableManager* nexthopTableManager_;
  Vix::Ptr<const Ip::IpIntfStatus> oldStatus_;
  Velnet::IpAddrWithMask currActive_;
};

}  // namespace Pbr
