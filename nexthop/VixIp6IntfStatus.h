// Follows one interface's IPv6 addresses for the nexthop table manager. Every
// address the interface lists is a candidate subnet, link-local ones
// included; the full pass withdraws addresses that vanished or changed while
// notifications were off, by comparing with the snapshot of the last pass.
#pragma once

#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "net/Ip6AddrWithMask.h"
#include "policymap/Ip6IntfStatus.h"

namespace Pbr {

class NexthopTableManager;

class VixIp6IntfStatus : public Ip6::IntfStatus::NotifieeConst {
 public:
  VixIp6IntfStatus(const Velnet::IntfId& intfId, NexthopTableManager* manager)
      : intfId_(intfId), nexthopTableManager_(manager) {}
  ~VixIp6IntfStatus() override { vixDoZombieReactors(true); }

  const Velnet::IntfId& key() const { return intfId_; }
  const Velnet::IntfId& intfId() const { return intfId_; }
  const Vix::Ptr<const Ip6::IntfStatus>& oldStatus() const { return oldStatus_; }

  void onAddr(const Velnet::Ip6AddrWithMask& addr) override { vix_handleIp6IntfStatus_addr(addr); }
  void vix_handleIp6IntfStatus_addr(const Velnet::Ip6AddrWithMask& addr);
  void handleAll(bool cleanup);
  void vix_handleIp6IntfStatus() { handleAll(false); }

 protected:
  void vixHandleZombie(bool zombie) override;

 private:
  const Velnet::IntfId intfId_;
  NexthopTableManager* nexthopTableManager_;
  Vix::Ptr<const Ip6::IntfStatus> oldStatus_;
};

}  // namespace Pbr
