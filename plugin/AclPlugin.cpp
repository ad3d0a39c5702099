#include "plugin/AclPlugin.h"

#include "framework/Errors.h"
#include "policymap/Cell.h"
#include "policymap/PlatformEntities.h"
#include "policymap/PolicyMapTypeConfig.h"
#include "policymap/PolicyMapTypeStatus.h"

namespace Pbr {

Vix::Ptr<AclPlugin> aclPluginFactory(const Vix::Name& name) {
  auto plugin = Vix::make<AclPlugin>(name);
  if (!plugin) throw Vix::NullPtrError();
  return plugin;
}

std::vector<Stordb::Mount> AclPlugin::mounts() {
  return {
      {"pbr/config", "Pbr::Config", "r"},
      {"pbr/statusRequest", "PolicyMap::PolicyMapStatusRequestDir", "r"},
      {Vix::format("cell/%d/pbr/status/iptables", static_cast<int>(Cell::cellId())),
       "PolicyMap::PolicyMapTypeStatus", "fwc"},
      {"acl/config", "Acl::Config", "r"},
      {"lag/input/config/cli", "Lag::Input::Config", "r"},
      {"ip/status", "Ip::Status", "r"},
      {"ip6/status", "Ip6::Status", "r"},
      {"routing/routingInfo/status", "Routing::RoutingInfo", "r"},
      {"routing6/routingInfo/status", "Routing6::RoutingInfo", "r"},
  };
}

void AclPlugin::contextIs(const Vix::Ptr<Acl::PluginContext>& context) {
  if (context == context_) return;
  context_ = context;
  notify<NotifieeConst>([](NotifieeConst& n) { n.onContext(); });
}

void AclPlugin::init(const Vix::Ptr<Acl::PluginContext>& context) {
  contextIs(context);
  const auto group = context_->entityManager()->getMountGroup(this);
  for (const auto& mount : mounts()) group->doMount(mount);
  group->doClose(false, "", 0.0);
}

void AclPlugin::nexthopTableManagerIs(const Vix::Ptr<const Ip::Status>& ipStatus,
                                      const Vix::Ptr<const Ip6::Status>& ip6Status) {
  nexthopTableManager_ = nexthopTableManagerFactory(ipStatus, ip6Status);
  if (!nexthopTableManager_) throw Vix::NullPtrError();
  if (context_) nexthopTableManager_->commandRunnerIs(context_->commandRunner());
}

void AclPlugin::aclHelperIs(const Vix::Ptr<NexthopTableManager>& nexthopTableManager) {
  aclHelper_ = Iptables::aclHelperFactory(nexthopTableManager);
  if (!aclHelper_) throw Vix::NullPtrError();
  if (context_) aclHelper_->iptablesWriterIs(context_->iptablesWriter());
}

void AclPlugin::doMountsComplete(Stordb::MountStatus,
                                 const Vix::Ptr<Stordb::EntityManager>& entityManager) {
  const auto paths = mounts();
  auto entity = [&](size_t row) { return entityManager->getEntity(paths[row].path); };
  const auto pbrConfig = Vix::ptrCast<Pbr::Config>(entity(0));
  const auto statusRequestDir = Vix::ptrCast<PolicyMap::PolicyMapStatusRequestDir>(entity(1));
  const auto status = Vix::ptrCast<PolicyMap::PolicyMapTypeStatus>(entity(2));
  const auto aclConfig = Vix::ptrCast<Acl::Config>(entity(3));
  const auto lagConfig = Vix::ptrCast<Lag::Input::Config>(entity(4));
  const auto ipStatus = Vix::ptrCast<Ip::Status>(entity(5));
  const auto ip6Status = Vix::ptrCast<Ip6::Status>(entity(6));
  const auto routingInfo = Vix::ptrCast<Routing::RoutingInfo>(entity(7));
  const auto routing6Info = Vix::ptrCast<Routing6::RoutingInfo>(entity(8));

  nexthopTableManagerIs(ipStatus, ip6Status);
  aclHelperIs(nexthopTableManager_);
  pbrAclPluginSm_ = pbrAclPluginSmFactory(
      pbrConfig ? pbrConfig->policyMapTypeConfig() : nullptr,
      pbrConfig ? pbrConfig->classMapTypeConfig() : nullptr, statusRequestDir, status, aclConfig,
      lagConfig, ipStatus, ip6Status, routingInfo, routing6Info, aclHelper_, nexthopTableManager_);
  pbrAclPluginSm_->initializedIs(true);
}

}  // namespace Pbr
