// The whole router core as waymarkd runs it (Router), on virtual time, with a
// kernel that records every routing command and iptables batch
// (FakeRouterKernel). Tests either set the configuration entities directly
// and start the plug-in over them (start()), or start the router with a
// configuration file's model (router.start()) and let it run
// (runUntilIdle()). Helpers read like an operator's configuration. Test
// fixtures derive from PbrSystemTest (tests/plugin/PbrSystemTest.h); the
// harnesses of tests/support use it as it is.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "daemon/Router.h"

#include "plugin/AclPlugin.h"
#include "plugin/ClassCommonData.h"
#include "plugin/StateDatabase.h"
#include "policymap/AclRuleParser.h"
#include "policymap/Cell.h"
#include "policymap/PlatformEntities.h"
#include "tests/support/AccessLists.h"
#include "tests/support/FakeRouterKernel.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

// One class of a policy: its nexthops, or a passthrough when there are none.
struct ClassSpec {
  std::string name;
  std::vector<std::string> nexthops;
};

class PbrSystem {
 public:
  PbrSystem() = default;
  ~PbrSystem() {
    Pbr::testMode = false;
    std::remove(configFile.c_str());
  }
  PbrSystem(const PbrSystem&) = delete;
  PbrSystem& operator=(const PbrSystem&) = delete;

  // Starts the plug-in over what is configured so far, recording what it
  // would do to the kernel.
  void start() {
    router.startPlugin();
    plugin = &router.plugin();
  }
  // Starts it with the real `ip` and iptables-restore.
  void startOnTheKernel() {
    kernel.realTools();
    start();
  }
  // Starts the router with the configuration `text`, which is also the file
  // its reloads read.
  void startRouter(const std::string& text) {
    writeConfig(text);
    router.start(Waymark::ConfigLoader::loadFile(configFile));
    plugin = &router.plugin();
  }
  // Asks the router as a control client would, waiting for work it does in
  // the background (warnings, counters, a reload's file) first and after.
  nlohmann::json ask(const nlohmann::json& request) {
    router.drainBackground();
    nlohmann::json reply;
    router.handle(request, [&reply](const nlohmann::json& r) { reply = r; });
    router.drainBackground();
    return reply;
  }
  // Reloads the file; "" or why not.
  std::string reload() {
    std::string error = "no answer";
    router.reload([&error](const std::string& e) { error = e; });
    router.drainBackground();
    return error;
  }
  void writeConfig(const std::string& text) const {
    std::FILE* f = std::fopen(configFile.c_str(), "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
  }
  // Turns the loop until the router is idle, moving virtual time on to the
  // next due timer whenever nothing is due now; false when it never is.
  bool runUntilIdle() {
    for (int pass = 0; pass < 100000 && !router.idle(); ++pass) {
      const double untilDue = Vix::activityManager().sleepTime();
      if (untilDue != Vix::kNever && untilDue > 0) clock.advance(untilDue);
      router.turn();
    }
    return router.idle();
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
  FakeRouterKernel kernel;
  RecordingCommandRunner& runner = kernel.recordingRunner;
  RecordingIptablesWriter& writer = kernel.recordingWriter;
  const std::string configFile =
      "/tmp/waymark-test-" + std::to_string(getpid()) + "-" + std::to_string(serial()) + ".yaml";
  std::vector<std::string> logged;  // what the router logged
  Waymark::Router router{kernel, clock.source(), configFile,
                         [this](const std::string& line) { logged.push_back(line); }};
  const Vix::Ptr<Pbr::Config>& pbrConfig = router.pbrConfig();
  const Vix::Ptr<Acl::Config>& aclConfig = router.aclConfig();
  const Vix::Ptr<Ip::Status>& ipStatus = router.ipStatus();
  const Vix::Ptr<Ip6::Status>& ip6Status = router.ip6Status();
  const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& status = router.policyStatus();
  Pbr::AclPlugin* plugin = nullptr;

 private:
  static int serial() {
    static int next = 0;
    return next++;
  }
};

}  // namespace waymark::test
