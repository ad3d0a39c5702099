// Pbr::PbrFwdAction: the forwarding target of a class: its nexthops, in
// configuration order (a primary and its ordered backups), or a nexthop
// group. The nexthop collection iterates in configuration order, which is
// the order in which a class's nexthop selector prefers them.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "net/IpGenAddr.h"

namespace Pbr {

class PbrFwdAction : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<PbrFwdAction> {
   public:
    // A nexthop was added or removed.
    virtual void onNexthop(const Velnet::IpGenAddr& /*addr*/) {}
    virtual void onNexthopGroup() {}
  };

  PbrFwdAction() = default;
  explicit PbrFwdAction(std::vector<Velnet::IpGenAddr> nexthops) : nexthops_(std::move(nexthops)) {}

  // In configuration order.
  const std::vector<Velnet::IpGenAddr>& nexthops() const { return nexthops_; }
  bool nexthop(const Velnet::IpGenAddr& addr) const {
    return std::find(nexthops_.begin(), nexthops_.end(), addr) != nexthops_.end();
  }
  // Appends `addr` unless it is already there.
  void nexthopIs(const Velnet::IpGenAddr& addr) {
    if (nexthop(addr)) return;
    nexthops_.push_back(addr);
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onNexthop(addr); });
  }
  void nexthopDel(const Velnet::IpGenAddr& addr) {
    const auto it = std::find(nexthops_.begin(), nexthops_.end(), addr);
    if (it == nexthops_.end()) return;
    nexthops_.erase(it);
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onNexthop(addr); });
  }

  const std::string& nexthopGroup() const { return nexthopGroup_; }
  void nexthopGroupIs(const std::string& group) {
    if (group == nexthopGroup_) return;
    nexthopGroup_ = group;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onNexthopGroup(); });
  }
  bool recursive() const { return recursive_; }
  void recursiveIs(bool recursive) { recursive_ = recursive; }

 private:
  std::vector<Velnet::IpGenAddr> nexthops_;
  std::string nexthopGroup_;
  bool recursive_ = false;
};

}  // namespace Pbr
