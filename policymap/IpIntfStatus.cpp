#include "policymap/IpIntfStatus.h"

namespace Ip {

void IpIntfStatus::activeAddrWithMaskIs(const Velnet::IpAddrWithMask& addr) {
  if (addr == active_) return;
  active_ = addr;
  notify<NotifieeConst>([](NotifieeConst& n) { n.onActiveAddrWithMask(); });
}

bool IpIntfStatus::activeSecondaryWithMask(const Velnet::IpAddrWithMask& addr) const {
  const auto it = secondaries_.find(addr);
  return it != secondaries_.end() && it->second;
}

void IpIntfStatus::activeSecondaryWithMaskIs(const Velnet::IpAddrWithMask& addr, bool active) {
  const auto [it, inserted] = secondaries_.try_emplace(addr, active);
  if (!inserted) {
    if (it->second == active) return;
    it->second = active;
  }
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onActiveSecondaryWithMask(addr); });
}

void IpIntfStatus::activeSecondaryWithMaskDel(const Velnet::IpAddrWithMask& addr) {
  if (secondaries_.erase(addr) == 0) return;
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onActiveSecondaryWithMask(addr); });
}

Vix::Ptr<IpIntfStatus> IpIntfStatus::snapshot() const {
  auto copy = Vix::make<IpIntfStatus>(intfId_);
  copy->active_ = active_;
  copy->secondaries_ = secondaries_;
  return copy;
}

}  // namespace Ip
