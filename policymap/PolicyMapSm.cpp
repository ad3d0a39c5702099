#include "policymap/PolicyMapSm.h"

#include "framework/Errors.h"

namespace PolicyMap {

namespace {
constexpr ClassMapMatchOption kFamilies[] = {matchIpv4, matchIpv6};
const char* const kNotProgrammed = "not programmed: no class matches an access list";
}  // namespace

// Hands a class's requests to rewrite its actions to the policy.
class PolicyMapSm::ClassReactor : public ClassMapSmCommonData::NotifieeConst {
 public:
  ClassReactor(PolicyMapSm* owner, ClassMapSm* sm) : owner_(owner), sm_(sm) {}
  void onUpdateAclActions() override { owner_->updateActions(*sm_); }

 private:
  PolicyMapSm* owner_;
  ClassMapSm* sm_;
};

class PolicyMapSm::CommonDataReactor : public PolicyMapSmCommonData::NotifieeConst {
 public:
  explicit CommonDataReactor(PolicyMapSm* owner) : owner_(owner) {}
  void onPolicyRewrite() override { owner_->rewrite(); }

 private:
  PolicyMapSm* owner_;
};

PolicyMapSm::PolicyMapSm(const Vix::Ptr<GlobalCommonData>& globalCommonData,
                         const PolicyMapSmKey& key,
                         const Vix::Ptr<PolicyMapConfig>& policyMapConfig,
                         const Vix::Ptr<const ClassMapTypeConfig>& classMapTypeConfig,
                         const Vix::Ptr<PolicyMapTypeStatus>& policyMapStatus)
    : globalCommonData_(globalCommonData),
      policyMapConfig_(policyMapConfig),
      classMapTypeConfig_(classMapTypeConfig),
      policyMapStatus_(policyMapStatus),
      commonData_(Vix::make<PolicyMapSmCommonData>(key)) {
  commonDataReactor_ = Vix::make<CommonDataReactor>(this);
  commonDataReactor_->notifierIs(commonData_.get());
  if (const auto& config = globalCommonData_->policyMapTypeConfig) {
    for (const auto& [intf, policy] : config->intfs()) {
      if (policy != key.name()) continue;
      commonData_->intfIs(intf, true);
      commonData_->intf6Is(intf, true);
    }
  }
}

PolicyMapSm::~PolicyMapSm() = default;

namespace {

// Marks the policy busy for the scope's life: requests that its own work
// causes (a class choosing its nexthop while it is created) are ignored, and
// the mark goes also when that work throws.
class BusyScope {
 public:
  explicit BusyScope(bool& busy) : busy_(busy) { busy_ = true; }
  ~BusyScope() { busy_ = false; }
  BusyScope(const BusyScope&) = delete;
  BusyScope& operator=(const BusyScope&) = delete;

 private:
  bool& busy_;
};

}  // namespace

void PolicyMapSm::start() {
  {
    const BusyScope busy(busy_);
    createClasses();
  }
  program(false);
}

void PolicyMapSm::createClasses() {
  for (const auto& config : policyMapConfig_->classes()) {
    const auto sub = classMapTypeConfig_ ? classMapTypeConfig_->classMap(config->name()) : nullptr;
    const auto sm = createClassMapSm(config, sub, config->classAction());
    if (!sm) throw Vix::NullPtrError();
    classes_.push_back(sm);
    sm->start();
    auto reactor = Vix::make<ClassReactor>(this, sm.get());
    reactor->notifierIs(sm->commonData().get());
    classReactors_.push_back(reactor);
  }
}

void PolicyMapSm::dropClasses(std::vector<Vix::Ptr<ClassMapSm>> classes) {
  for (const auto& sm : classes) sm->cleanup();
}

void PolicyMapSm::program(bool rebuild) {
  std::string result;
  {
    const BusyScope busy(busy_);
    result = programFamilies(rebuild);
  }
  writeStatus(result);
}

std::string PolicyMapSm::programFamilies(bool rebuild) {
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  std::string result;
  for (const auto option : kFamilies) {
    const bool needed = std::any_of(classes_.begin(), classes_.end(),
                                    [&](const auto& c) { return c->matches(option); });
    const bool was = programmed(option);
    if (!needed) {
      if (was) result += helper.deletePolicy(commonData_, option);
      families_.erase(option);
      continue;
    }
    if (was && !rebuild) continue;
    result +=
        was ? helper.recreatePolicy(commonData_, option) : helper.createPolicy(commonData_, option);
    families_.insert(option);
    addRules(option);
    result += helper.commitPolicy(commonData_, option);
  }
  return result;
}

void PolicyMapSm::addRules(ClassMapMatchOption option) {
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  for (const auto& sm : classes_) {
    for (const auto& sub : sm->subRules(key(), option)) {
      helper.addRule(sub.key, {sub.tcpFlag}, commonData_, sm->commonData());
    }
  }
}

void PolicyMapSm::updateActions(ClassMapSm& sm) {
  if (busy_) return;
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  std::string result = helper.beginUpdateActions(commonData_, sm.commonData());
  for (const auto option : families_) {
    for (const auto& sub : sm.subRules(key(), option)) {
      result += helper.updateAction(sub.key, {sub.tcpFlag}, commonData_, sm.commonData());
    }
  }
  result += helper.endUpdateActions(commonData_, sm.commonData());
  writeStatus(result);
}

void PolicyMapSm::rewrite() {
  if (busy_) return;
  program(true);
}

void PolicyMapSm::policyMapConfigIs(const Vix::Ptr<PolicyMapConfig>& config) {
  if (config == policyMapConfig_) return;
  const auto& fresh = config->classes();
  bool sameClasses = fresh.size() == classes_.size();
  for (size_t i = 0; sameClasses && i < fresh.size(); ++i) {
    const auto sub =
        classMapTypeConfig_ ? classMapTypeConfig_->classMap(fresh[i]->name()) : nullptr;
    sameClasses =
        fresh[i]->name() == classes_[i]->name() && sub == classes_[i]->classMapSubConfig();
  }
  policyMapConfig_ = config;
  if (!sameClasses) {
    restructure();
    return;
  }
  for (size_t i = 0; i < fresh.size(); ++i) classes_[i]->classActionIs(fresh[i]->classAction());
}

void PolicyMapSm::restructure() {
  // The new classes count their nexthops in before the old ones count theirs
  // out, so that a nexthop both use never drops to no reference.
  std::vector<Vix::Ptr<ClassMapSm>> old = std::move(classes_);
  classes_.clear();
  classReactors_.clear();
  {
    const BusyScope busy(busy_);
    createClasses();
    dropClasses(std::move(old));
  }
  program(true);
}

void PolicyMapSm::intfIs(const Velnet::IntfId& intf, bool applied) {
  if (commonData_->intf().value(intf, false) == applied) return;
  if (applied) {
    commonData_->intfIs(intf, true);
    commonData_->intf6Is(intf, true);
  } else {
    commonData_->intfDel(intf);
    commonData_->intf6Del(intf);
    policyMapStatus_->statusDel(key().name(), intf);
  }
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  std::string result;
  for (const auto option : families_) {
    result += applied ? helper.addIntfToPolicy(commonData_, intf, option)
                      : helper.removeIntfFromPolicy(commonData_, intf, option);
  }
  writeStatus(result);
}

void PolicyMapSm::remove() {
  const BusyScope busy(busy_);
  classReactors_.clear();
  dropClasses(std::move(classes_));
  classes_.clear();
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  for (const auto option : families_) helper.deletePolicy(commonData_, option);
  families_.clear();
  policyMapStatus_->policyDel(key().name());
}

void PolicyMapSm::reprogram() {
  PolicyMapAclHelper& helper = *globalCommonData_->aclHelper;
  for (const auto option : families_) helper.forgetPolicy(commonData_, option);
  families_.clear();
  program(false);
}

bool PolicyMapSm::usesClassMap(const std::string& name) const {
  return std::any_of(classes_.begin(), classes_.end(),
                     [&](const auto& c) { return c->name() == name; });
}

bool PolicyMapSm::usesAccessList(const std::string& name) const {
  return std::any_of(classes_.begin(), classes_.end(),
                     [&](const auto& c) { return c->usesAccessList(name); });
}

void PolicyMapSm::writeStatus(const std::string& result) {
  if (!policyMapStatus_) return;
  const std::string status =
      !result.empty() ? result : (families_.empty() ? kNotProgrammed : "installed");
  commonData_->intf().forEach([&](const Velnet::IntfId& intf, bool) {
    policyMapStatus_->statusIs(key().name(), intf, status);
  });
}

}  // namespace PolicyMap
