// An AclHelper writing into a recording iptables writer on virtual time, with
// a nexthop table manager behind it and helpers that build policies and
// classes the way the policy framework does.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "iptables/AclHelper.h"
#include "plugin/ClassCommonData.h"
#include "policymap/AclConfig.h"
#include "policymap/AclRuleParser.h"
#include "tests/support/AccessLists.h"
#include "tests/support/RecordingCommandRunner.h"
#include "tests/support/RecordingIptablesWriter.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

class IptablesTest : public ::testing::Test {
 public:
  using PolicyData = Vix::Ptr<PolicyMap::PolicyMapSmCommonData>;
  using ClassData = Vix::Ptr<Pbr::ClassCommonData>;

  IptablesTest() {
    manager->commandRunnerIs(&runner);
    helper->iptablesWriterIs(&writer);
    helper->hwInit();
    writer.clear();
  }
  ~IptablesTest() override { Pbr::testMode = false; }

  // An access list of `rules` in the configuration grammar.
  void accessList(const std::string& name, const std::vector<std::string>& rules,
                  bool ipv6 = false) {
    aclConfig->accessListIs(accessListOf(name, rules, ipv6));
  }
  PolicyData policy(const std::string& name, const std::vector<std::string>& intfs = {}) {
    auto data = Vix::make<PolicyMap::PolicyMapSmCommonData>(PolicyMap::PolicyMapSmKey(name));
    for (const auto& i : intfs) {
      data->intfIs(Velnet::IntfId(i), true);
      data->intf6Is(Velnet::IntfId(i), true);
    }
    return data;
  }
  ClassData klass(const std::string& name, const std::vector<std::string>& lists) {
    return Vix::make<Pbr::ClassCommonData>(
        name, Vix::make<PolicyMap::ClassMapSubConfig>(name, lists), aclConfig);
  }
  // Adds every sub-rule of `list`'s rules, as the framework does.
  void addRules(const PolicyData& p, const ClassData& c, const std::string& list) {
    const auto acl = aclConfig->accessList(list);
    const auto option = acl->ipv6() ? PolicyMap::matchIpv6 : PolicyMap::matchIpv4;
    for (const auto& [seq, rule] : acl->rules()) {
      for (const auto& flag : rule.subRuleFlags()) {
        helper->addRule(PolicyMap::AclRuleKey(p->key(), option, c->name(), list, seq),
                        {flag.value()}, p, c);
      }
    }
  }
  // Programs `nexthop` as the manager would, so that marks appear.
  void programmed(const std::string& nexthop) {
    const auto nh = Velnet::IpGenAddr::parse(nexthop);
    manager->createNexthop(nh);
    manager->programmedIs(nh, true);
  }
  // Drains every queue; the lines written for `type` since the last call.
  std::vector<std::string> drained(Acl::AclType type = Acl::aclTypeIpv4) {
    while (clock.runDue() > 0) {
    }
    auto lines = writer.lines(type);
    writer.clear();
    return lines;
  }

  VirtualClock clock;
  TraceCapture traces;
  RecordingCommandRunner runner;
  RecordingIptablesWriter writer;
  Vix::Ptr<Acl::Config> aclConfig = Vix::make<Acl::Config>();
  Vix::Ptr<Pbr::NexthopTableManager> manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  Vix::Ptr<Pbr::Iptables::AclHelper> helper = Pbr::Iptables::aclHelperFactory(manager);
};

}  // namespace waymark::test
