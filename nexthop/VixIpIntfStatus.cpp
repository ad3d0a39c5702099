#include "nexthop/VixIpIntfStatus.h"

#include "framework/Trace.h"
#include "nexthop/NexthopTableManager.h"

namespace Pbr {

void VixIpIntfStatus::handlePrimaryAddr() {
  const Velnet::IpAddrWithMask primary = notifier()->activeAddrWithMask();
  nexthopTableManager_->handleIpIntfAddress(intfId_, currActive_, true);
  nexthopTableManager_->handleIpIntfAddress(intfId_, primary, false);
  currActive_ = primary;
}

void VixIpIntfStatus::vix_handleIpIntfStatus_activeSecondaryWithMask(
    const Velnet::IpAddrWithMask& addr) {
  nexthopTableManager_->handleIpIntfAddress(intfId_, addr, false);
}

void VixIpIntfStatus::handleAll(bool cleanup) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << intfId_ << " cleanup=" << cleanup);
  const Ip::IpIntfStatus* status = notifier();
  if (status == nullptr) return;
  const Velnet::IpAddrWithMask& primary = status->activeAddrWithMask();
  auto stillHeld = [&](const Velnet::IpAddrWithMask& a) {
    return a == primary || status->activeSecondaryWithMask(a);
  };
  if (!cleanup && oldStatus_) {
    if (!stillHeld(oldStatus_->activeAddrWithMask())) {
      nexthopTableManager_->handleIpIntfAddress(intfId_, oldStatus_->activeAddrWithMask(), false);
    }
    for (const auto& [secondary, active] : oldStatus_->activeSecondaryWithMask()) {
      if (!stillHeld(secondary)) {
        nexthopTableManager_->handleIpIntfAddress(intfId_, secondary, false);
      }
    }
  }
  nexthopTableManager_->handleIpIntfAddress(intfId_, primary, cleanup);
  // The handler may run reactions that change the status; walk a copy.
  const Ip::IpIntfStatus::Secondaries secondaries = status->activeSecondaryWithMask();
  for (const auto& [secondary, active] : secondaries) {
    nexthopTableManager_->handleIpIntfAddress(intfId_, secondary, cleanup);
  }
  oldStatus_ = status->snapshot();
  currActive_ = primary;
}

void VixIpIntfStatus::vixHandleZombie(bool zombie) {
  if (zombie) nexthopTableManager_->vix_handleIpIntfStatus(this);
}

}  // namespace Pbr
