#include "sync/ConnectedLinks.h"

#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Waymark {

nlohmann::json ConnectedLinks::addresses(const Ip::Status& v4, const Ip6::Status& v6) {
  nlohmann::json out = nlohmann::json::object();
  v4.ipIntfStatusMap().forEach([&](const Ip::IpIntfStatus& intf) {
    auto& addrs = out[intf.key().stringValue()] = nlohmann::json::array();
    if (intf.activeAddrWithMask() != Velnet::IpAddrWithMask()) {
      addrs.push_back(intf.activeAddrWithMask().stringValue());
    }
    for (const auto& [addr, active] : intf.activeSecondaryWithMask()) {
      if (active) addrs.push_back(addr.stringValue());
    }
  });
  v6.intfMap().forEach([&](const Ip6::IntfStatus& intf) {
    auto& addrs = out[intf.key().stringValue()];
    if (addrs.is_null()) addrs = nlohmann::json::array();
    for (const auto& [addr, info] : intf.addrs()) addrs.push_back(addr.stringValue());
  });
  return out;
}

ConnectedLinks::Link ConnectedLinks::linkOf(const Ip::Status& v4, const Ip6::Status& v6,
                                            const Velnet::IpGenAddr& nexthop) {
  Link best;
  int bestLen = -1;
  auto consider = [&](const std::string& name, const Velnet::IpGenAddr& source, bool holds,
                      int len) {
    if (holds && len > bestLen) {
      best = {name, source};
      bestLen = len;
    }
  };
  if (nexthop.isV4()) {
    v4.ipIntfStatusMap().forEach([&](const Ip::IpIntfStatus& intf) {
      auto check = [&](const Velnet::IpAddrWithMask& a) {
        if (a.maskLen() == 0) return;
        consider(intf.key().stringValue(), a.addr(), Velnet::Prefix(a).contains(nexthop.v4()),
                 a.maskLen());
      };
      check(intf.activeAddrWithMask());
      for (const auto& [addr, active] : intf.activeSecondaryWithMask()) {
        if (active) check(addr);
      }
    });
  } else if (nexthop.isV6()) {
    v6.intfMap().forEach([&](const Ip6::IntfStatus& intf) {
      for (const auto& [addr, info] : intf.addrs()) {
        if (addr.maskLen() == 0) continue;
        consider(intf.key().stringValue(), addr.addr(),
                 Velnet::Ip6Prefix(addr).contains(nexthop.v6()), addr.maskLen());
      }
    });
  }
  return best;
}

}  // namespace Waymark
