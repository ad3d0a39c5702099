// The whole plug-in as the agent runs it: a state database holding the
// configuration and interface status, the plug-in created by its factory and
// initialised with a context whose `ip` runner and iptables writer record,
// all on virtual time. Helpers read like an operator's configuration.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugin/AclPlugin.h"
#include "plugin/ClassCommonData.h"
#include "plugin/StateDatabase.h"
#include "policymap/AclRuleParser.h"
#include "policymap/Cell.h"
#include "policymap/PlatformEntities.h"
#include "tests/support/AccessLists.h"
#include "tests/support/RecordingCommandRunner.h"
#include "tests/support/RecordingIptablesWriter.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

// One class of a policy: its nexthops, or a passthrough when there are none.
struct ClassSpec {
  std::string name;
  std::vector<std::string> nexthops;
};

class PbrSystemTest : public ::testing::Test {
 public:
  PbrSystemTest() {
    Pbr::fillStateDatabase(*store, {pbrConfig, status, aclConfig, ipStatus, ip6Status});
  }
  ~PbrSystemTest() override { Pbr::testMode = false; }
  void TestBody() override {}

  // Starts the plug-in over what is configured so far, recording what it
  // would do to the kernel.
  void start() {
    plugin = Pbr::aclPluginFactory("waymark");
    plugin->init(Vix::make<Acl::PluginContext>(store, &runner, &writer));
  }
  // Starts it with the real `ip` and iptables-restore.
  void startOnTheKernel() {
    plugin = Pbr::aclPluginFactory("waymark");
    plugin->init(Vix::make<Acl::PluginContext>(store));
  }

  void accessList(const std::string& name, const std::vector<std::string>& rules,
                  bool ipv6 = false) {
    aclConfig->accessListIs(accessListOf(name, rules, ipv6));
  }
  void classMap(const std::string& name, const std::vector<std::string>& lists) {
    pbrConfig->classMapTypeConfig()->classMapIs(
        Vix::make<PolicyMap::ClassMapSubConfig>(name, lists));
  }
  void policy(const std::string& name, const std::vector<ClassSpec>& classes) {
    std::vector<Vix::Ptr<PolicyMap::ClassMapConfig>> configs;
    for (const auto& c : classes) {
      auto action = Vix::make<PolicyMap::ClassAction>();
      std::vector<Velnet::IpGenAddr> nexthops;
      for (const auto& nh : c.nexthops) nexthops.push_back(Velnet::IpGenAddr::parse(nh));
      const uint8_t kind = nexthops.empty() ? PolicyMap::pbrFwdNone : PolicyMap::pbrFwdNexthops;
      action->actionIs(Vix::make<PolicyMap::Action>(PolicyMap::actionPbrFwd, kind,
                                                    Vix::make<Pbr::PbrFwdAction>(nexthops)));
      configs.push_back(Vix::make<PolicyMap::ClassMapConfig>(c.name, action));
    }
    pbrConfig->policyMapTypeConfig()->policyMapIs(
        Vix::make<PolicyMap::PolicyMapConfig>(name, configs));
  }
  void apply(const std::string& intf, const std::string& policyName) {
    pbrConfig->policyMapTypeConfig()->intfIs(Velnet::IntfId(intf), policyName);
  }
  // Gives `intf` its primary IPv4 address, or takes it away ("").
  void address(const std::string& intf, const std::string& addrWithMask) {
    ipStatus->ipIntfStatusIs(Velnet::IntfId(intf))
        ->activeAddrWithMaskIs(addrWithMask.empty() ? Velnet::IpAddrWithMask()
                                                    : Velnet::IpAddrWithMask::parse(addrWithMask));
  }
  void address6(const std::string& intf, const std::string& addrWithMask) {
    const auto a = Velnet::Ip6AddrWithMask::parse(addrWithMask);
    ip6Status->intfIs(Velnet::IntfId(intf))->addrIs(a, {a, 0});
  }

  // Runs every clock until nothing is due: the kernel work is all done.
  void settle() {
    for (int pass = 0; pass < 1000 && clock.runDue() > 0; ++pass) {
    }
  }
  // The family's iptables lines written since the last call.
  std::vector<std::string> lines(Acl::AclType type = Acl::aclTypeIpv4) {
    auto out = writer.lines(type);
    std::erase_if(writer.batches, [&](const auto& b) { return b.type == type; });
    return out;
  }
  Vix::Ptr<Pbr::ClassCommonData> classData(const std::string& policyName,
                                           const std::string& className) const {
    const auto sm = plugin->pbrAclPluginSm()->policyMapSm(policyName);
    if (!sm) return nullptr;
    for (const auto& c : sm->classes()) {
      if (c->name() == className) return Vix::ptrCast<Pbr::ClassCommonData>(c->commonData());
    }
    return nullptr;
  }
  std::string chain(const std::string& policyName,
                    PolicyMap::ClassMapMatchOption option = PolicyMap::matchIpv4) const {
    const auto typeData = plugin->aclHelper()->aclTypeData(option);
    const auto acl = typeData ? typeData->acl(PolicyMap::PolicyMapSmKey(policyName)) : nullptr;
    return acl ? acl->chainName() : "";
  }
  const Pbr::NexthopTableManager& manager() const { return *plugin->nexthopTableManager(); }

  VirtualClock clock;
  TraceCapture traces;
  RecordingCommandRunner runner;
  RecordingIptablesWriter writer;
  Vix::Ptr<Stordb::EntityManager> store = Vix::make<Stordb::EntityManager>();
  Vix::Ptr<Pbr::Config> pbrConfig = Vix::make<Pbr::Config>();
  Vix::Ptr<Acl::Config> aclConfig = Vix::make<Acl::Config>();
  Vix::Ptr<PolicyMap::PolicyMapTypeStatus> status = Vix::make<PolicyMap::PolicyMapTypeStatus>();
  Vix::Ptr<Ip::Status> ipStatus = Vix::make<Ip::Status>();
  Vix::Ptr<Ip6::Status> ip6Status = Vix::make<Ip6::Status>();
  Vix::Ptr<Pbr::AclPlugin> plugin;
};

}  // namespace waymark::test
