#include "policymap/ServicePolicySm.h"

#include <algorithm>

#include "framework/Errors.h"

namespace PolicyMap {

class ServicePolicySm::ConfigReactor : public PolicyMapTypeConfig::NotifieeConst {
 public:
  explicit ConfigReactor(ServicePolicySm* owner) : owner_(owner) {}
  void onPolicyMap(const std::string& name) override { owner_->handlePolicyMap(name); }
  void onIntf(const Velnet::IntfId& intf) override { owner_->handleIntf(intf); }

 private:
  ServicePolicySm* owner_;
};

class ServicePolicySm::ClassMapReactor : public ClassMapTypeConfig::NotifieeConst {
 public:
  explicit ClassMapReactor(ServicePolicySm* owner) : owner_(owner) {}
  void onClassMap(const std::string& name) override { owner_->handleClassMap(name); }

 private:
  ServicePolicySm* owner_;
};

class ServicePolicySm::AclReactor : public Acl::Config::NotifieeConst {
 public:
  explicit AclReactor(ServicePolicySm* owner) : owner_(owner) {}
  void onAccessList(const std::string& name) override { owner_->handleAccessList(name); }

 private:
  ServicePolicySm* owner_;
};

ServicePolicySm::ServicePolicySm(const Vix::Ptr<const PolicyMapTypeConfig>& policyMapTypeConfig,
                                 const Vix::Ptr<const ClassMapTypeConfig>& classMapTypeConfig,
                                 const Vix::Ptr<const PolicyMapStatusRequestDir>&,
                                 const Vix::Ptr<PolicyMapTypeStatus>& policyMapTypeStatus,
                                 const Vix::Ptr<const Acl::Config>& aclConfig,
                                 const Vix::Ptr<const Lag::Input::Config>&,
                                 const Vix::Ptr<const Ip::Status>&,
                                 const Vix::Ptr<const Ip6::Status>&,
                                 const Vix::Ptr<const Routing::RoutingInfo>&,
                                 const Vix::Ptr<const Routing6::RoutingInfo>&,
                                 const Vix::Ptr<PolicyMapAclHelper>& aclHelper,
                                 const Vix::Ptr<const Acl::AclDiff>&, bool, bool, bool)
    : globalCommonData_(Vix::make<GlobalCommonData>()) {
  globalCommonData_->policyMapTypeConfig = policyMapTypeConfig;
  globalCommonData_->classMapTypeConfig = classMapTypeConfig;
  globalCommonData_->policyMapTypeStatus =
      policyMapTypeStatus ? policyMapTypeStatus : Vix::make<PolicyMapTypeStatus>();
  globalCommonData_->aclConfig = aclConfig;
  globalCommonData_->aclHelper = aclHelper;
}

ServicePolicySm::~ServicePolicySm() = default;

void ServicePolicySm::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  if (!initialized) return;
  globalCommonData_->aclHelper->hwInit();
  if (const auto& config = globalCommonData_->policyMapTypeConfig) {
    for (const auto& policy : config->policyMaps()) addPolicy(policy);
    configReactor_ = Vix::make<ConfigReactor>(this);
    configReactor_->notifierIs(config.get());
  }
  if (const auto& classMaps = globalCommonData_->classMapTypeConfig) {
    classMapReactor_ = Vix::make<ClassMapReactor>(this);
    classMapReactor_->notifierIs(classMaps.get());
  }
  if (const auto& acls = globalCommonData_->aclConfig) {
    aclReactor_ = Vix::make<AclReactor>(this);
    aclReactor_->notifierIs(acls.get());
  }
}

void ServicePolicySm::rebuild() {
  if (!initialized_) return;
  globalCommonData_->aclHelper->hwInit();
  for (const auto& sm : policyMapSms_) sm->reprogram();
}

Vix::Ptr<PolicyMapSm> ServicePolicySm::policyMapSm(const std::string& name) const {
  for (const auto& sm : policyMapSms_) {
    if (sm->key().name() == name) return sm;
  }
  return nullptr;
}

void ServicePolicySm::addPolicy(const Vix::Ptr<PolicyMapConfig>& config) {
  const auto sm = createPolicyMapSm(PolicyMapSmKey(config->name()), config,
                                    globalCommonData_->policyMapTypeStatus);
  if (!sm) throw Vix::NullPtrError();
  policyMapSms_.push_back(sm);
  sm->start();
}

void ServicePolicySm::handlePolicyMap(const std::string& name) {
  const auto config = globalCommonData_->policyMapTypeConfig->policyMap(name);
  const auto sm = policyMapSm(name);
  if (config && sm) {
    sm->policyMapConfigIs(config);
  } else if (config) {
    addPolicy(config);
  } else if (sm) {
    sm->remove();
    std::erase(policyMapSms_, sm);
  }
}

void ServicePolicySm::handleIntf(const Velnet::IntfId& intf) {
  const std::string policy = globalCommonData_->policyMapTypeConfig->intf(intf);
  // Unapplied first, so that an interface moving between policies never has
  // two jumps.
  for (const auto& sm : policyMapSms_) {
    if (sm->key().name() != policy) sm->intfIs(intf, false);
  }
  if (const auto sm = policyMapSm(policy)) sm->intfIs(intf, true);
}

void ServicePolicySm::handleClassMap(const std::string& name) {
  for (const auto& sm : policyMapSms_) {
    const auto config = sm->policyMapConfig();
    const bool listed = std::any_of(config->classes().begin(), config->classes().end(),
                                    [&](const auto& c) { return c->name() == name; });
    if (listed) sm->restructure();
  }
}

void ServicePolicySm::handleAccessList(const std::string& name) {
  for (const auto& sm : policyMapSms_) {
    if (sm->usesAccessList(name)) sm->restructure();
  }
}

}  // namespace PolicyMap
