#include "policymap/ClassMapSm.h"

#include <algorithm>
#include <set>

namespace PolicyMap {

ClassMapSm::ClassMapSm(const Vix::Ptr<GlobalCommonData>& globalCommonData,
                       const Vix::Ptr<PolicyMapSmCommonData>& policyCommonData,
                       const Vix::Ptr<ClassMapConfig>& classMapConfig,
                       const Vix::Ptr<const ClassMapSubConfig>& classMapSubConfig,
                       const Vix::Ptr<ClassAction>& classAction)
    : globalCommonData_(globalCommonData),
      policyCommonData_(policyCommonData),
      classMapConfig_(classMapConfig),
      classMapSubConfig_(classMapSubConfig),
      classAction_(classAction) {}

Vix::Ptr<ActionSm> ClassMapSm::createActionSm(ActionType) { return nullptr; }

Vix::Ptr<ClassMapSmCommonData> ClassMapSm::createCommonData() {
  return Vix::make<ClassMapSmCommonData>(name(), classMapSubConfig_, globalCommonData_->aclConfig);
}

void ClassMapSm::start() {
  commonData_ = createCommonData();
  if (!classAction_) return;
  for (const auto& [type, action] : classAction_->actions()) startAction(type);
}

void ClassMapSm::startAction(ActionType type) {
  const auto action = classAction_->action(type);
  actionKinds_[type] = action ? action->pbrFwdKind() : 0;
  auto sm = createActionSm(type);
  if (!sm) return;
  actionSms_[type] = sm;
  sm->handleInitialized();
  sm->handleAction();
}

void ClassMapSm::classActionIs(const Vix::Ptr<ClassAction>& classAction) {
  const auto old = classAction_;
  classAction_ = classAction;
  std::set<ActionType> types;
  for (const auto& ca : {old, classAction}) {
    if (!ca) continue;
    for (const auto& [type, action] : ca->actions()) types.insert(type);
  }
  for (const ActionType type : types) {
    const auto before = old ? old->action(type) : nullptr;
    const auto now = classAction ? classAction->action(type) : nullptr;
    if (before == now) continue;
    const auto sm = actionSms_.find(type);
    // An action of the same kind is handed to its state machine; one of
    // another kind replaces it.
    if (sm != actionSms_.end() && now && now->pbrFwdKind() == actionKinds_[type]) {
      sm->second->actionIs(now);
      continue;
    }
    Vix::Ptr<ActionSm> replaced;
    if (sm != actionSms_.end()) {
      replaced = sm->second;
      actionSms_.erase(sm);
    }
    actionKinds_.erase(type);
    // A class turning into a passthrough starts its new state machine while
    // the old target is still selected, so that it rewrites the whole policy;
    // any other change releases the old target first, so that what it held is
    // counted out before the new action takes over.
    const bool passthrough = now && now->pbrFwdKind() == pbrFwdNone;
    if (replaced && !passthrough) replaced->cleanup();
    if (now) startAction(type);
    if (replaced && passthrough) replaced->cleanup();
  }
}

bool ClassMapSm::matches(ClassMapMatchOption option) const {
  const auto& acls = globalCommonData_->aclConfig;
  if (!acls || !classMapSubConfig_) return false;
  for (const auto& name : classMapSubConfig_->accessLists()) {
    const auto list = acls->accessList(name);
    if (list && list->ipv6() == (option == matchIpv6)) return true;
  }
  return false;
}

bool ClassMapSm::usesAccessList(const std::string& name) const {
  if (!classMapSubConfig_) return false;
  const auto& lists = classMapSubConfig_->accessLists();
  return std::find(lists.begin(), lists.end(), name) != lists.end();
}

std::vector<SubRule> ClassMapSm::subRules(const PolicyMapSmKey& policy,
                                          ClassMapMatchOption option) const {
  std::vector<SubRule> out;
  const auto& acls = globalCommonData_->aclConfig;
  if (!acls || !classMapSubConfig_) return out;
  for (const auto& name : classMapSubConfig_->accessLists()) {
    const auto list = acls->accessList(name);
    if (!list || list->ipv6() != (option == matchIpv6)) continue;
    for (const auto& [seq, rule] : list->rules()) {
      for (const auto& flag : rule.subRuleFlags()) {
        out.push_back({AclRuleKey(policy, option, this->name(), name, seq), flag.value()});
      }
    }
  }
  return out;
}

void ClassMapSm::cleanup() {
  for (auto& [type, sm] : actionSms_) sm->cleanup();
  actionSms_.clear();
  actionKinds_.clear();
}

}  // namespace PolicyMap
