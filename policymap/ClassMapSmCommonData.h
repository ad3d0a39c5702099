// PolicyMap::ClassMapSmCommonData: what the policy framework keeps for one
// class of a policy: its name, its match configuration and the access-list
// configuration it reads rules from. The plug-in derives its class data from
// it. `updateAclActions` counts requests to rewrite this class's rule actions
// (only the target, not the match); the framework answers each with
// beginUpdateActions / updateAction per sub-rule / endUpdateActions.
#pragma once

#include <cstdint>
#include <string>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "policymap/AclConfig.h"
#include "policymap/AclRuleKey.h"
#include "policymap/ClassMapSubConfig.h"

namespace PolicyMap {

class ClassMapSmCommonData : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<ClassMapSmCommonData> {
   public:
    virtual void onUpdateAclActions() {}
  };

  ClassMapSmCommonData(std::string name, const Vix::Ptr<const ClassMapSubConfig>& classMap,
                       const Vix::Ptr<const Acl::Config>& aclConfig)
      : name_(std::move(name)), classMap_(classMap), aclConfig_(aclConfig) {}

  const std::string& name() const { return name_; }
  const Vix::Ptr<const ClassMapSubConfig>& classMap() const { return classMap_; }
  const Vix::Ptr<const Acl::Config>& aclConfig() const { return aclConfig_; }

  // The configuration of the rule `key` names. REQUIRES: the rule exists.
  Acl::AclRuleConfig getIpRule(const AclRuleKey& key) const { return rule(key); }
  Acl::AclRuleConfig getIp6Rule(const AclRuleKey& key) const { return rule(key); }

  uint32_t updateAclActions() const { return updateAclActions_; }
  void updateAclActionsInc(uint32_t n) {
    updateAclActions_ += n;
    notify<NotifieeConst>([](NotifieeConst& r) { r.onUpdateAclActions(); });
  }

 private:
  Acl::AclRuleConfig rule(const AclRuleKey& key) const {
    const auto list = aclConfig_ ? aclConfig_->accessList(key.aclName()) : nullptr;
    const Acl::AclRuleConfig* r = list ? list->rule(key.seqNo()) : nullptr;
    VIX_ASSERT(r != nullptr, "rule");
    return *r;
  }

  const std::string name_;
  const Vix::Ptr<const ClassMapSubConfig> classMap_;
  const Vix::Ptr<const Acl::Config> aclConfig_;
  uint32_t updateAclActions_ = 0;
};

}  // namespace PolicyMap
