// Pbr::AclPlugin: the plug-in's root and the only object the agent creates
// (aclPluginFactory). At init it mounts the nine paths of the state database
// the plug-in needs and closes the group; when the mounts are complete it
// builds, in this order, the nexthop table manager, the AclHelper (handed the
// manager) and the root state machine (handed everything), and starts the
// policy framework. It does no routing work itself.
#pragma once

#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "iptables/AclHelper.h"
#include "nexthop/NexthopTableManager.h"
#include "plugin/PbrAclPluginSm.h"
#include "plugin/PluginContext.h"
#include "policymap/Stordb.h"

namespace Pbr {

class AclPlugin : public Stordb::Mounter {
 public:
  class NotifieeConst : public Vix::Notifiee<AclPlugin> {
   public:
    virtual void onContext() {}
  };

  explicit AclPlugin(const Vix::Name& name) : Stordb::Mounter(name) {}

  const Vix::Ptr<Acl::PluginContext>& context() const { return context_; }
  void contextIs(const Vix::Ptr<Acl::PluginContext>& context);

  const Vix::Ptr<PbrAclPluginSm>& pbrAclPluginSm() const { return pbrAclPluginSm_; }
  const Vix::Ptr<Iptables::AclHelper>& aclHelper() const { return aclHelper_; }
  const Vix::Ptr<NexthopTableManager>& nexthopTableManager() const { return nexthopTableManager_; }
  void nexthopTableManagerIs(const Vix::Ptr<const Ip::Status>& ipStatus,
                             const Vix::Ptr<const Ip6::Status>& ip6Status);
  void nexthopTableManagerDel() { nexthopTableManager_ = nullptr; }
  void aclHelperIs(const Vix::Ptr<NexthopTableManager>& nexthopTableManager);
  void aclHelperDel() { aclHelper_ = nullptr; }
  void pbrAclPluginSmDel() { pbrAclPluginSm_ = nullptr; }

  // Mounts the plug-in's paths and closes the group.
  void init(const Vix::Ptr<Acl::PluginContext>& context);
  void doMountsComplete(Stordb::MountStatus mountStatus,
                        const Vix::Ptr<Stordb::EntityManager>& entityManager) override;

  // The mount paths and their types, in mount order; the status path is
  // formatted with the cell id.
  static std::vector<Stordb::Mount> mounts();

 private:
  Vix::Ptr<Acl::PluginContext> context_;
  Vix::Ptr<PbrAclPluginSm> pbrAclPluginSm_;
  Vix::Ptr<Iptables::AclHelper> aclHelper_;
  Vix::Ptr<NexthopTableManager> nexthopTableManager_;
};

Vix::Ptr<AclPlugin> aclPluginFactory(const Vix::Name& name);

}  // namespace Pbr
