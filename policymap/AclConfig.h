// Acl::Config: the configured access lists, by name. Each list has a family
// and its rules by sequence number; the policy framework expands the rules of
// a class's lists into sub-rules, and the iptables side renders them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "framework/Entity.h"
#include "framework/HashMap.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "policymap/AclRuleConfig.h"

namespace Acl {

class AccessList : public Vix::Entity {
 public:
  using Rules = std::map<uint32_t, AclRuleConfig>;

  AccessList(std::string name, bool ipv6) : name_(std::move(name)), ipv6_(ipv6) {}

  const std::string& name() const { return name_; }
  const std::string& key() const { return name_; }
  bool ipv6() const { return ipv6_; }
  // Rules in ascending sequence order.
  const Rules& rules() const { return rules_; }
  const AclRuleConfig* rule(uint32_t seqNo) const {
    const auto it = rules_.find(seqNo);
    return it == rules_.end() ? nullptr : &it->second;
  }
  void rulesIs(Rules rules) { rules_ = std::move(rules); }

 private:
  const std::string name_;
  const bool ipv6_;
  Rules rules_;
};

class Config : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<Config> {
   public:
    // The list was created, replaced or removed.
    virtual void onAccessList(const std::string& /*name*/) {}
  };

  Vix::Ptr<AccessList> accessList(const std::string& name) const {
    return accessList_.member(name);
  }
  // Installs `list`, replacing a list of the same name.
  void accessListIs(const Vix::Ptr<AccessList>& list) {
    accessList_.memberDel(list->name());
    accessList_.newMember(list);
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onAccessList(list->name()); });
  }
  void accessListDel(const std::string& name) {
    if (!accessList_.memberDel(name)) return;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onAccessList(name); });
  }
  const Vix::HashMap<AccessList, std::string>& accessLists() const { return accessList_; }

 private:
  Vix::HashMap<AccessList, std::string> accessList_;
};

}  // namespace Acl
