// The whole plug-in, driven the way a router's configuration and interfaces
// drive it, read back from what it wrote to the kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/plugin/PbrSystemTest.h"
#include "tests/support/MangleModel.h"

namespace waymark::test {
namespace {

using Rules = std::vector<std::string>;

std::string hex(uint32_t v) {
  std::ostringstream os;
  os << std::hex << v;
  return os.str();
}

const std::string kWeb = "-p tcp -m tcp --dport 80";
const std::string kVoice = "-p udp -m udp --dport 5060";
const std::string kLocal = "-d 203.0.113.0/24";

class OperatorStories : public PbrSystemTest {
 protected:
  OperatorStories() {
    accessList("web", {"10 permit tcp any any eq 80"});
    accessList("voice", {"10 permit udp any any eq 5060"});
    accessList("local", {"10 permit ip any 203.0.113.0/24"});
    accessList("web6", {"10 permit tcp any any eq 80"}, true);
    for (const char* c : {"web", "voice", "local", "web6"}) classMap(c, {c});
  }

  // Everything written so far, replayed.
  void replay() {
    model.apply(lines(Acl::aclTypeIpv4));
    model6.apply(lines(Acl::aclTypeIpv6));
  }
  std::string mark(const std::string& nexthop) const {
    return " -j MARK --set-mark 0x" + hex(manager().fwmark(Velnet::IpGenAddr::parse(nexthop)));
  }
  std::vector<std::string> commandsMentioning(const std::string& text) const {
    std::vector<std::string> out;
    for (const auto& c : runner.commands) {
      if (c.find(text) != std::string::npos) out.push_back(c);
    }
    return out;
  }

  MangleModel model;
  MangleModel model6;
};

TEST_F(OperatorStories, APolicyOfThreeClassesOnTwoInterfacesComesUp) {
  address("eth1", "192.0.2.254/24");
  address("eth2", "198.51.100.254/24");
  policy("edge", {{"web", {"192.0.2.1"}}, {"voice", {"198.51.100.1"}}, {"local", {}}});
  apply("eth1", "edge");
  apply("eth2", "edge");
  start();
  settle();
  replay();

  const std::string c = chain("edge");
  EXPECT_EQ(model.chain("PREROUTING"), (Rules{"-j TAMBRO_PBR_INTF"}));
  Rules jumps = model.chain("TAMBRO_PBR_INTF");
  std::sort(jumps.begin(), jumps.end());
  EXPECT_EQ(jumps, (Rules{"-i eth1 -j " + c, "-i eth2 -j " + c}));
  EXPECT_EQ(model.chain(c),
            (Rules{kWeb + mark("192.0.2.1"), kWeb + " -j ACCEPT", kVoice + mark("198.51.100.1"),
                   kVoice + " -j ACCEPT", kLocal, kLocal + " -j ACCEPT"}));
  for (const char* nh : {"192.0.2.1", "198.51.100.1"}) {
    const auto a = Velnet::IpGenAddr::parse(nh);
    const std::string t = std::to_string(manager().routeTable(a));
    EXPECT_EQ(commandsMentioning("via " + std::string(nh)),
              (Rules{"ip route add default via " + std::string(nh) + " table " + t}));
    EXPECT_TRUE(manager().programmed(a));
  }
  EXPECT_TRUE(classData("edge", "local")->passthroughConfigured());
  EXPECT_EQ(status->status("edge", Velnet::IntfId("eth1")), "installed");
  EXPECT_EQ(status->status("edge", Velnet::IntfId("eth2")), "installed");
  EXPECT_FALSE(model6.hasChain(chain("edge", PolicyMap::matchIpv6)));
}

TEST_F(OperatorStories, ANexthopOutsideEverySubnetMarksNothingUntilAnAddressCoversIt) {
  policy("edge", {{"web", {"192.0.2.1"}}});
  apply("eth1", "edge");
  start();
  settle();
  replay();
  const std::string c = chain("edge");
  EXPECT_EQ(model.chain(c), (Rules{kWeb, kWeb + " -j ACCEPT"}));
  EXPECT_TRUE(commandsMentioning("add").empty());
  EXPECT_TRUE(classData("edge", "web")->nexthopValue().isUnset());

  address("eth1", "192.0.2.254/24");
  settle();
  EXPECT_EQ(lines(), (Rules{"-R " + c + " 1 " + kWeb + " -j MARK --set-mark 0x2",
                            "-R " + c + " 2 " + kWeb + " -j ACCEPT"}));
  EXPECT_EQ(classData("edge", "web")->nexthopValue(), Velnet::IpGenAddr::parse("192.0.2.1"));
}

TEST_F(OperatorStories, AListOfTwoNexthopsFailsOverInOrderAndBack) {
  address("eth1", "192.0.2.254/24");
  address("eth2", "198.51.100.254/24");
  policy("edge", {{"web", {"192.0.2.1", "198.51.100.1"}}});
  apply("eth1", "edge");
  start();
  settle();
  replay();
  const std::string c = chain("edge");
  EXPECT_EQ(model.chain(c).front(), kWeb + mark("192.0.2.1"));

  address("eth1", "");
  settle();
  replay();
  EXPECT_EQ(model.chain(c).front(), kWeb + mark("198.51.100.1"));
  EXPECT_FALSE(manager().programmed(Velnet::IpGenAddr::parse("192.0.2.1")));

  address("eth1", "192.0.2.254/24");
  settle();
  replay();
  EXPECT_EQ(model.chain(c).front(), kWeb + mark("192.0.2.1"));
  EXPECT_EQ(classData("edge", "web")->nexthopValue(), Velnet::IpGenAddr::parse("192.0.2.1"));
}

TEST_F(OperatorStories, AClassTurningIntoAPassthroughRewritesTheWholePolicy) {
  address("eth1", "192.0.2.254/24");
  policy("edge", {{"web", {"192.0.2.1"}}, {"local", {}}});
  apply("eth1", "edge");
  start();
  settle();
  replay();
  const std::string c = chain("edge");

  policy("edge", {{"web", {}}, {"local", {}}});
  settle();
  const Rules written = lines();
  model.apply(written);
  EXPECT_NE(std::find(written.begin(), written.end(), "-F " + c), written.end());
  EXPECT_EQ(model.chain(c), (Rules{kWeb, kWeb + " -j ACCEPT", kLocal, kLocal + " -j ACCEPT"}));
  EXPECT_TRUE(classData("edge", "web")->passthroughConfigured());
  // Nothing uses the nexthop any more: its rule goes and its mark is freed.
  EXPECT_EQ(runner.commands.back(), "ip route del table 2");
  EXPECT_EQ(manager().fwmark(Velnet::IpGenAddr::parse("192.0.2.1")), 0u);
}

TEST_F(OperatorStories, ANexthopKeptAcrossAListChangeNeverLosesItsLastReference) {
  address("eth1", "192.0.2.254/24");
  policy("edge", {{"web", {"192.0.2.1", "192.0.2.2"}}});
  apply("eth1", "edge");
  start();
  settle();
  const auto shared = Velnet::IpGenAddr::parse("192.0.2.2");
  const uint32_t markBefore = manager().fwmark(shared);
  const std::string priority = std::to_string(manager().ipRuleIndex(shared));
  traces.clear();
  runner.take();

  policy("edge", {{"web", {"192.0.2.2", "192.0.2.3"}}});
  // Counted in before counted out.
  EXPECT_EQ(traces.texts(4)[0], "Nexthop address 192.0.2.2");
  EXPECT_EQ(traces.texts(4)[1], "Nexthop address 192.0.2.3");
  EXPECT_EQ(traces.texts(4)[2], "Nexthop address 192.0.2.1");
  EXPECT_EQ(traces.texts(4)[3], "Nexthop address 192.0.2.2");
  EXPECT_EQ(manager().pendingNexthop(shared), Pbr::pendingNone);
  settle();
  EXPECT_EQ(manager().fwmark(shared), markBefore);
  EXPECT_TRUE(manager().programmed(shared));
  EXPECT_TRUE(commandsMentioning("rule del priority " + priority).empty());
  EXPECT_EQ(classData("edge", "web")->nexthopValue(), shared);
}

TEST_F(OperatorStories, RemovingAPolicyRemovesItsRulesRoutesAndResources) {
  address("eth1", "192.0.2.254/24");
  address("eth2", "198.51.100.254/24");
  policy("edge", {{"web", {"192.0.2.1"}}, {"voice", {"198.51.100.1"}}});
  apply("eth1", "edge");
  apply("eth2", "edge");
  start();
  settle();
  replay();
  const std::string c = chain("edge");
  runner.take();

  pbrConfig->policyMapTypeConfig()->policyMapDel("edge");
  settle();
  const Rules written = lines();
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[2], "-F " + c);
  EXPECT_EQ(written[3], "-X " + c);
  model.apply(written);
  EXPECT_FALSE(model.hasChain(c));
  EXPECT_TRUE(model.chain("TAMBRO_PBR_INTF").empty());
  const auto commands = runner.take();
  EXPECT_EQ(std::count_if(commands.begin(), commands.end(),
                          [](const auto& cmd) { return cmd.rfind("ip rule del", 0) == 0; }),
            2);
  for (const char* nh : {"192.0.2.1", "198.51.100.1"}) {
    const auto a = Velnet::IpGenAddr::parse(nh);
    EXPECT_FALSE(manager().programmed(a));
    EXPECT_EQ(manager().fwmark(a), 0u);
    EXPECT_EQ(manager().nexthop(a), 0u);
  }
  EXPECT_TRUE(manager().addrForFwmark(2).isUnset());
  EXPECT_TRUE(manager().addrForRouteTable(3).isUnset());
  EXPECT_TRUE(status->policies().empty());
}

TEST_F(OperatorStories, IPv4AndIPv6ClassesOfOnePolicySideBySide) {
  address("eth1", "192.0.2.254/24");
  address6("eth1", "2001:db8::fe/64");
  policy("edge", {{"web", {"192.0.2.1"}}, {"web6", {"2001:db8::1"}}});
  apply("eth1", "edge");
  start();
  settle();
  replay();
  const std::string c4 = chain("edge");
  const std::string c6 = chain("edge", PolicyMap::matchIpv6);
  EXPECT_NE(c4, c6);
  EXPECT_EQ(model.chain(c4), (Rules{kWeb + mark("192.0.2.1"), kWeb + " -j ACCEPT"}));
  EXPECT_EQ(model6.chain(c6), (Rules{kWeb + mark("2001:db8::1"), kWeb + " -j ACCEPT"}));
  EXPECT_EQ(model6.chain("TAMBRO_PBR_INTF"), (Rules{"-i eth1 -j " + c6}));
  EXPECT_EQ(commandsMentioning("-6 route add"),
            (Rules{"ip -6 route add default via 2001:db8::1 table " +
                   std::to_string(manager().routeTable(Velnet::IpGenAddr::parse("2001:db8::1")))}));
}

TEST_F(OperatorStories, MovingAnInterfaceToAnotherPolicyMovesItsJump) {
  policy("edge", {{"local", {}}});
  policy("core", {{"voice", {}}});
  apply("eth1", "edge");
  start();
  settle();
  replay();
  apply("eth1", "core");
  settle();
  replay();
  EXPECT_EQ(model.chain("TAMBRO_PBR_INTF"), (Rules{"-i eth1 -j " + chain("core")}));
  EXPECT_EQ(status->status("core", Velnet::IntfId("eth1")), "installed");
  EXPECT_EQ(status->status("edge", Velnet::IntfId("eth1")), "");
}

}  // namespace
}  // namespace waymark::test
