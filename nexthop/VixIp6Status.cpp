#include "nexthop/VixIp6Status.h"

#include "nexthop/NexthopTableManager.h"

namespace Pbr {

void VixIp6Status::onIntf(const Velnet::IntfId& intfId) {
  const auto status = notifier()->intf(intfId);
  if (!status) {
    nexthopTableManager_->ip6IntfStatusDel(intfId);
    return;
  }
  nexthopTableManager_->ip6IntfStatusIs(status);
}

void VixIp6Status::handleNotifier() {
  notifier()->intfMap().forEach(
      [&](const Ip6::IntfStatus& status) { nexthopTableManager_->ip6IntfStatusIs(&status); });
}

}  // namespace Pbr
