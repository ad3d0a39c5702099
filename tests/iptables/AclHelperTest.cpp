// The exact lines a policy's life produces.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "framework/Errors.h"
#include "tests/iptables/IptablesFixture.h"

namespace waymark::test {
namespace {

using Lines = std::vector<std::string>;
using PolicyMap::matchIpv4;
using PolicyMap::matchIpv6;

class AclHelperTest : public IptablesTest {
 protected:
  AclHelperTest() {
    accessList("web", {"10 permit tcp 10.0.0.0/8 any eq 80 443",
                       "20 permit tcp any range 1024 65535 host 192.0.2.7 established"});
    accessList("web6", {"permit udp 2001:db8::/32 any gt 1023"}, true);
  }
  // The chain the helper gave `p` in `option`.
  std::string chain(const PolicyData& p, PolicyMap::ClassMapMatchOption option = matchIpv4) {
    return helper->aclTypeData(option)->acl(p->key())->chainName();
  }
};

TEST_F(AclHelperTest, HardwareInitialisationRecreatesTheDispatchChainAtOnceInBothFamilies) {
  const auto fresh = Pbr::Iptables::aclHelperFactory(manager);
  fresh->iptablesWriterIs(&writer);
  fresh->hwInit();
  ASSERT_EQ(writer.batches.size(), 2u);
  const std::string expected =
      "*mangle\n-F\n-X\n-N TAMBRO_PBR_INTF\n-I PREROUTING -j TAMBRO_PBR_INTF\nCOMMIT\n";
  EXPECT_EQ(writer.batches[0].type, Acl::aclTypeIpv4);
  EXPECT_EQ(writer.batches[0].text, expected);
  EXPECT_EQ(writer.batches[1].type, Acl::aclTypeIpv6);
  EXPECT_EQ(writer.batches[1].text, expected);
  EXPECT_EQ(fresh->aclTypeData(matchIpv4)->rulesProgrammed(), 0u);
}

TEST_F(AclHelperTest, TestModeFollowsTheEnvironment) {
  setenv("PBR_TEST", "", 1);
  helper->hwInit();
  EXPECT_TRUE(Pbr::testMode);
  unsetenv("PBR_TEST");
  helper->hwInit();
  EXPECT_FALSE(Pbr::testMode);
}

TEST_F(AclHelperTest, APolicyComesUpWithItsChainJumpsAndRulePairs) {
  programmed("192.0.2.1");   // mark 2
  programmed("192.0.2.26");  // mark 3
  manager->fwmarkIs(Velnet::IpGenAddr::parse("192.0.2.26"), 26);
  const auto p = policy("edge", {"eth1", "eth2"});
  const auto web = klass("web", {"web"});
  web->nexthopValueIs(Velnet::IpGenAddr::parse("192.0.2.26"));
  helper->createPolicy(p, matchIpv4);
  addRules(p, web, "web");
  helper->commitPolicy(p, matchIpv4);
  const std::string c = chain(p);
  EXPECT_TRUE(std::regex_match(c, std::regex("PBR_[0-9]+_edge")));
  const std::string m10 = "-p tcp -s 10.0.0.0/8 -m multiport --dports 80,443";
  const std::string m20rst = "-p tcp -d 192.0.2.7/32 -m tcp --sport 1024:65535 --tcp-flags RST RST";
  const std::string m20ack = "-p tcp -d 192.0.2.7/32 -m tcp --sport 1024:65535 --tcp-flags ACK ACK";
  auto lines = drained();
  // Jumps follow the interface set's own order.
  ASSERT_EQ(lines.size(), 9u);
  std::sort(lines.begin() + 1, lines.begin() + 3);
  EXPECT_EQ(lines, (Lines{
                       "-N " + c,
                       "-A TAMBRO_PBR_INTF -i eth1 -j " + c,
                       "-A TAMBRO_PBR_INTF -i eth2 -j " + c,
                       "-A " + c + " " + m10 + " -j MARK --set-mark 0x1a",
                       "-A " + c + " " + m10 + " -j ACCEPT",
                       "-A " + c + " " + m20rst + " -j MARK --set-mark 0x1a",
                       "-A " + c + " " + m20rst + " -j ACCEPT",
                       "-A " + c + " " + m20ack + " -j MARK --set-mark 0x1a",
                       "-A " + c + " " + m20ack + " -j ACCEPT",
                   }));
  const auto acl = helper->aclTypeData(matchIpv4)->acl(p->key());
  EXPECT_EQ(acl->lastIndex(), 6u);
  const PolicyMap::AclRuleKey rule20(p->key(), matchIpv4, "web", "web", 20);
  EXPECT_EQ(acl->ruleIndex(Pbr::Iptables::SubRuleKey(rule20, Acl::TcpFlag::rst)), 3u);
  EXPECT_EQ(acl->ruleIndex(Pbr::Iptables::SubRuleKey(rule20, Acl::TcpFlag::ack)), 5u);
}

TEST_F(AclHelperTest, AnUnprogrammedNexthopLeavesOnlyACountingRule) {
  const auto p = policy("edge");
  const auto web6 = klass("web6", {"web6"});
  web6->nexthopValueIs(Velnet::IpGenAddr::parse("2001:db8::1"));
  helper->createPolicy(p, matchIpv6);
  addRules(p, web6, "web6");
  const std::string c = chain(p, matchIpv6);
  const std::string m = "-p udp -s 2001:db8::/32 -m udp --dport 1024:65535";
  EXPECT_EQ(drained(Acl::aclTypeIpv6),
            (Lines{"-N " + c, "-A " + c + " " + m, "-A " + c + " " + m + " -j ACCEPT"}));
}

TEST_F(AclHelperTest, AnActionUpdateReplacesBothRulesInPlace) {
  const auto p = policy("edge", {"eth1"});
  const auto web = klass("web", {"web"});
  helper->createPolicy(p, matchIpv4);
  addRules(p, web, "web");
  drained();
  programmed("192.0.2.1");
  web->nexthopValueIs(Velnet::IpGenAddr::parse("192.0.2.1"));
  const PolicyMap::AclRuleKey rule20(p->key(), matchIpv4, "web", "web", 20);
  helper->beginUpdateActions(p, web);
  helper->updateAction(rule20, {Acl::TcpFlag::ack}, p, web);
  helper->endUpdateActions(p, web);
  const std::string c = chain(p);
  const std::string m = "-p tcp -d 192.0.2.7/32 -m tcp --sport 1024:65535 --tcp-flags ACK ACK";
  EXPECT_EQ(drained(), (Lines{"-R " + c + " 5 " + m + " -j MARK --set-mark 0x2",
                              "-R " + c + " 6 " + m + " -j ACCEPT"}));
  EXPECT_EQ(helper->aclTypeData(matchIpv4)->acl(p->key())->lastIndex(), 6u);
}

TEST_F(AclHelperTest, AProgrammedNexthopWithoutAMarkIsWrittenAsMarkZero) {
  const auto p = policy("edge");
  const auto web6 = klass("web6", {"web6"});
  const auto nh = Velnet::IpGenAddr::parse("2001:db8::1");
  manager->programmedIs(nh, true);
  web6->nexthopValueIs(nh);
  helper->createPolicy(p, matchIpv6);
  addRules(p, web6, "web6");
  const auto lines = drained(Acl::aclTypeIpv6);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1],
            "-A " + chain(p, matchIpv6) +
                " -p udp -s 2001:db8::/32 -m udp --dport 1024:65535 -j MARK --set-mark 0x0");
}

TEST_F(AclHelperTest, RecreatingAPolicyFlushesItsChainAndRestartsPositions) {
  const auto p = policy("edge", {"eth1"});
  const auto web = klass("web", {"web"});
  helper->createPolicy(p, matchIpv4);
  addRules(p, web, "web");
  drained();
  helper->recreatePolicy(p, matchIpv4);
  addRules(p, web, "web");
  const auto lines = drained();
  const std::string c = chain(p);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "-F " + c);
  for (size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(lines[i].substr(0, 3), "-A ") << lines[i];
  EXPECT_EQ(helper->aclTypeData(matchIpv4)->acl(p->key())->lastIndex(), 6u);
}

TEST_F(AclHelperTest, DeletingAPolicyIsOneElementOfJumpRemovalsFlushAndDelete) {
  const auto p = policy("edge", {"eth1", "eth2", "eth3"});
  helper->createPolicy(p, matchIpv4);
  drained();
  const auto v4 = helper->aclTypeData(matchIpv4);
  const uint32_t before = v4->rulesProgrammed();
  const std::string c = chain(p);
  helper->deletePolicy(p, matchIpv4);
  const auto lines = drained();
  EXPECT_EQ(v4->rulesProgrammed(), before + 1);
  ASSERT_EQ(lines.size(), 5u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], std::regex("-D TAMBRO_PBR_INTF -i eth[123] -j " + c)));
  }
  EXPECT_EQ(lines[3], "-F " + c);
  EXPECT_EQ(lines[4], "-X " + c);
  EXPECT_FALSE(v4->acl(p->key()));

  helper->deletePolicy(p, matchIpv4);
  EXPECT_TRUE(drained().empty());
}

TEST_F(AclHelperTest, InterfacesAreAppliedAndRemovedOnce) {
  const auto p = policy("edge", {"eth1"});
  helper->createPolicy(p, matchIpv4);
  const std::string c = chain(p);
  drained();
  helper->addIntfToPolicy(p, Velnet::IntfId("eth1"), matchIpv4);
  helper->addIntfToPolicy(p, Velnet::IntfId("eth2"), matchIpv4);
  helper->removeIntfFromPolicy(p, Velnet::IntfId("eth3"), matchIpv4);
  helper->removeIntfFromPolicy(p, Velnet::IntfId("eth1"), matchIpv4);
  EXPECT_EQ(drained(),
            (Lines{"-A TAMBRO_PBR_INTF -i eth2 -j " + c, "-D TAMBRO_PBR_INTF -i eth1 -j " + c}));
  EXPECT_EQ(helper->aclTypeData(matchIpv4)->rulesProgrammed(), 4u);

  // A second createPolicy reuses the chain; its already applied interface
  // still gets an (empty) element.
  const uint32_t before = helper->aclTypeData(matchIpv4)->rulesProgrammed();
  helper->createPolicy(p, matchIpv4);
  EXPECT_EQ(drained(), (Lines{"-N " + c, "-A TAMBRO_PBR_INTF -i eth1 -j " + c}));
  EXPECT_EQ(helper->aclTypeData(matchIpv4)->rulesProgrammed(), before + 2);
}

TEST_F(AclHelperTest, ChainNamesAreCutAtTwentyEightCharactersAndStayUnique) {
  const auto a = policy("a-policy-name-that-is-far-too-long");
  const auto b = policy("a-policy-name-that-is-far-too-long-as-well");
  helper->createPolicy(a, matchIpv4);
  helper->createPolicy(b, matchIpv4);
  EXPECT_EQ(chain(a).size(), 28u);
  EXPECT_EQ(chain(b).size(), 28u);
  EXPECT_NE(chain(a), chain(b));
  const int n = std::stoi(chain(a).substr(4));
  EXPECT_EQ(chain(b),
            ("PBR_" + std::to_string(n + 1) + "_a-policy-name-that-is-far").substr(0, 28));
  const auto instance =
      Vix::make<PolicyMap::PolicyMapSmCommonData>(PolicyMap::PolicyMapSmKey("p", "x"));
  helper->createPolicy(instance, matchIpv6);
  EXPECT_EQ(chain(instance, matchIpv6), "PBR_" + std::to_string(n + 2) + "_p_x");
}

TEST_F(AclHelperTest, AFlagAboveSixBitsIsRejectedWithNothingQueued) {
  const auto p = policy("edge");
  const auto web = klass("web", {"web"});
  helper->createPolicy(p, matchIpv4);
  drained();
  try {
    helper->addRule(PolicyMap::AclRuleKey(p->key(), matchIpv4, "web", "web", 10), {0x40}, p, web);
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "TcpFlag::value > 0x3f not allowed");
  }
  EXPECT_TRUE(drained().empty());
  EXPECT_EQ(helper->aclTypeData(matchIpv4)->acl(p->key())->lastIndex(), 0u);
}

TEST_F(AclHelperTest, ASecondFrameworkObjectForTheSameKeyIsANameInUse) {
  helper->createPolicy(policy("edge"), matchIpv4);
  EXPECT_THROW(helper->createPolicy(policy("edge"), matchIpv4), Vix::NameInUseError);
}

TEST(AclHelperDeathTest, RulesForAnUnknownPolicyOrFamilyAreProgrammingErrors) {
  const auto manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  const auto helper = Pbr::Iptables::aclHelperFactory(manager);
  RecordingIptablesWriter writer;
  helper->iptablesWriterIs(&writer);
  const auto config = Vix::make<Acl::Config>();
  const auto c = Vix::make<Pbr::ClassCommonData>(
      "web", Vix::make<PolicyMap::ClassMapSubConfig>("web", std::vector<std::string>{}), config);
  const auto p = Vix::make<PolicyMap::PolicyMapSmCommonData>(PolicyMap::PolicyMapSmKey("x"));
  const PolicyMap::AclRuleKey key(p->key(), matchIpv4, "web", "web", 10);
  EXPECT_DEATH(helper->addRule(key, {0}, p, c), "typeData");
  helper->hwInit();
  EXPECT_DEATH(helper->addRule(key, {0}, p, c), "data");
}

}  // namespace
}  // namespace waymark::test
