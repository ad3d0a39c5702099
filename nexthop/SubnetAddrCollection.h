// The nexthops whose route was programmed inside one connected subnet
// (SubnetAddrCollection for IPv4, Ip6SubnetAddrCollection for IPv6). The
// nexthop table manager keeps one per subnet; when the subnet goes away,
// every address in it goes back to waiting for a subnet.
#pragma once

#include "framework/Entity.h"
#include "framework/ValueMap.h"
#include "net/Ip6Addr.h"
#include "net/Ip6Prefix.h"
#include "net/IpAddr.h"
#include "net/Prefix.h"

namespace Pbr {

template <class SubnetPrefix, class Addr>
class BasicSubnetAddrCollection : public Vix::Entity {
 public:
  using Addrs = Vix::ValueMap<Addr, bool>;

  explicit BasicSubnetAddrCollection(const SubnetPrefix& subnet) : subnet_(subnet) {}

  const SubnetPrefix& subnet() const { return subnet_; }
  // The collection's key in the manager's per-subnet map.
  const SubnetPrefix& key() const { return subnet_; }

  bool addr(const Addr& a) const { return addr_.value(a, false); }
  void addrIs(const Addr& a, bool value) { addr_.valueIs(a, value); }
  void newAddr(const Addr& a, bool value) { addr_.valueIs(a, value); }
  void addrDel(const Addr& a) { addr_.del(a); }
  void addrDelAll() { addr_.delAll(); }
  const Addrs& addrs() const { return addr_; }
  typename Addrs::Iterator addrIterator() const { return addr_.begin(); }

 private:
  const SubnetPrefix subnet_;
  Addrs addr_;
};

using SubnetAddrCollection = BasicSubnetAddrCollection<Velnet::Prefix, Velnet::IpAddr>;
using Ip6SubnetAddrCollection = BasicSubnetAddrCollection<Velnet::Ip6Prefix, Velnet::Ip6Addr>;

}  // namespace Pbr
