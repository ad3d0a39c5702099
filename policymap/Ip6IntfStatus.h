// Ip6::IntfStatus: the IPv6 addresses of one interface (every address the
// kernel reports usable, link-local included), each with its AddressInfo.
// The IPv6 twin of Ip::IpIntfStatus; there is no primary address.
#pragma once

#include <cstdint>
#include <map>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "net/Ip6AddrWithMask.h"

namespace Ip6 {

// What the platform knows of one address; the default value is empty.
struct AddressInfo {
  Velnet::Ip6AddrWithMask addr;
  uint32_t flags = 0;  // the kernel's IFA_F_* flags as reported

  bool empty() const { return *this == AddressInfo(); }
  bool operator==(const AddressInfo&) const = default;
};

class IntfStatus : public Vix::Entity {
 public:
  using Addrs = std::map<Velnet::Ip6AddrWithMask, AddressInfo>;

  class NotifieeConst : public Vix::Notifiee<IntfStatus> {
   public:
    virtual void onAddr(const Velnet::Ip6AddrWithMask& /*addr*/) {}
  };

  explicit IntfStatus(const Velnet::IntfId& intfId) : intfId_(intfId) {}

  const Velnet::IntfId& intfId() const { return intfId_; }
  const Velnet::IntfId& key() const { return intfId_; }

  // The address's info; empty when the interface does not have it.
  AddressInfo addr(const Velnet::Ip6AddrWithMask& a) const {
    const auto it = addr_.find(a);
    return it == addr_.end() ? AddressInfo() : it->second;
  }
  const Addrs& addrs() const { return addr_; }
  void addrIs(const Velnet::Ip6AddrWithMask& a, const AddressInfo& info) {
    const auto [it, inserted] = addr_.try_emplace(a, info);
    if (!inserted) {
      if (it->second == info) return;
      it->second = info;
    }
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onAddr(a); });
  }
  void addrDel(const Velnet::Ip6AddrWithMask& a) {
    if (addr_.erase(a) == 0) return;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onAddr(a); });
  }

  // A copy of the current values that nobody watches.
  Vix::Ptr<IntfStatus> snapshot() const {
    auto copy = Vix::make<IntfStatus>(intfId_);
    copy->addr_ = addr_;
    return copy;
  }

 private:
  const Velnet::IntfId intfId_;
  Addrs addr_;
};

}  // namespace Ip6
