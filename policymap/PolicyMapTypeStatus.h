// PolicyMap::PolicyMapTypeStatus: the programming status that the plug-in
// writes back, per policy and interface: "installed", or the error text of
// the operation that failed. PolicyMap::PolicyMapStatusRequestDir is where
// status requests would arrive; waymark serves status from its own socket
// and leaves it empty.
#pragma once

#include <map>
#include <string>

#include "framework/Entity.h"
#include "net/IntfId.h"

namespace PolicyMap {

class PolicyMapTypeStatus : public Vix::Entity {
 public:
  using IntfStatus = std::map<Velnet::IntfId, std::string>;

  const std::map<std::string, IntfStatus>& policies() const { return policies_; }
  std::string status(const std::string& policy, const Velnet::IntfId& intf) const {
    const auto p = policies_.find(policy);
    if (p == policies_.end()) return "";
    const auto i = p->second.find(intf);
    return i == p->second.end() ? "" : i->second;
  }
  void statusIs(const std::string& policy, const Velnet::IntfId& intf, const std::string& s) {
    policies_[policy][intf] = s;
  }
  void statusDel(const std::string& policy, const Velnet::IntfId& intf) {
    const auto p = policies_.find(policy);
    if (p == policies_.end()) return;
    p->second.erase(intf);
    if (p->second.empty()) policies_.erase(p);
  }
  void policyDel(const std::string& policy) { policies_.erase(policy); }

 private:
  std::map<std::string, IntfStatus> policies_;
};

class PolicyMapStatusRequestDir : public Vix::Entity {};

}  // namespace PolicyMap
