#include "nexthop/VixIpStatus.h"

#include "nexthop/NexthopTableManager.h"

namespace Pbr {

void VixIpStatus::onIpIntfStatus(const Velnet::IntfId& intfId) {
  const auto status = notifier()->ipIntfStatus(intfId);
  if (!status) {
    nexthopTableManager_->ipIntfStatusDel(intfId);
    return;
  }
  nexthopTableManager_->ipIntfStatusIs(status);
}

void VixIpStatus::handleNotifier() {
  notifier()->ipIntfStatusMap().forEach(
      [&](const Ip::IpIntfStatus& status) { nexthopTableManager_->ipIntfStatusIs(&status); });
}

}  // namespace Pbr
