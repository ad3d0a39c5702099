#include "sync/InterfaceStatusSync.h"

namespace Waymark {

void InterfaceStatusSync::publish(const NetlinkListener::Interface& shown) {
  const Velnet::IntfId intf(shown.name);
  if (!shown.present) {
    ipStatus_->ipIntfStatusDel(intf);
    ip6Status_->intfDel(intf);
    return;
  }
  const auto status = ipStatus_->ipIntfStatusIs(intf);
  for (const auto& [a, active] : Ip::IpIntfStatus::Secondaries(status->activeSecondaryWithMask())) {
    if (shown.secondaries.count(a) == 0) status->activeSecondaryWithMaskDel(a);
  }
  status->activeAddrWithMaskIs(shown.primary);
  for (const auto& a : shown.secondaries) status->activeSecondaryWithMaskIs(a, true);

  const auto status6 = ip6Status_->intfIs(intf);
  for (const auto& [a, info] : Ip6::IntfStatus::Addrs(status6->addrs())) {
    if (shown.v6.count(a) == 0) status6->addrDel(a);
  }
  for (const auto& [a, flags] : shown.v6) status6->addrIs(a, Ip6::AddressInfo{a, flags});
}

}  // namespace Waymark
