#include "nexthop/VixIp6IntfStatus.h"

#include "framework/Trace.h"
#include "nexthop/NexthopTableManager.h"

namespace Pbr {

void VixIp6IntfStatus::vix_handleIp6IntfStatus_addr(const Velnet::Ip6AddrWithMask& addr) {
  nexthopTableManager_->handleIp6IntfAddress(intfId_, addr, false);
}

void VixIp6IntfStatus::handleAll(bool cleanup) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << intfId_ << " cleanup=" << cleanup);
  const Ip6::IntfStatus* status = notifier();
  if (status == nullptr) return;
  if (oldStatus_) {
    for (const auto& [addr, info] : oldStatus_->addrs()) {
      if (status->addr(addr) != info)
        nexthopTableManager_->handleIp6IntfAddress(intfId_, addr, false);
    }
  }
  // The handler may run reactions that change the status; walk a copy.
  const Ip6::IntfStatus::Addrs current = status->addrs();
  for (const auto& [addr, info] : current) {
    nexthopTableManager_->handleIp6IntfAddress(intfId_, addr, cleanup);
  }
  oldStatus_ = status->snapshot();
}

void VixIp6IntfStatus::vixHandleZombie(bool zombie) {
  if (zombie) nexthopTableManager_->vix_handleIp6IntfStatus(this);
}

}  // namespace Pbr
