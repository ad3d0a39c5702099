// The whole plug-in against the real kernel in a private network namespace,
// with the real `ip` and iptables-restore: a policy of IPv4 and IPv6 classes
// comes up, fails over in list order and back, and is removed; iptables -S,
// ip rule and the nexthop tables are read back at every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/NetworkNamespace.h"
#include "tests/support/PbrSystem.h"

namespace waymark::test {
namespace {

using Lines = std::vector<std::string>;

class PluginKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->addLinkPair("wm2", "wm3");
    ns_->run("ip addr add 192.0.2.254/24 dev wm0 && ip addr add 198.51.100.254/24 dev wm2");
    ns_->run("ip -6 addr add 2001:db8::fe/64 dev wm0 nodad");
    w_ = std::make_unique<PbrSystem>();
  }

  Lines read(const std::string& command, const std::string& keep = "") {
    std::istringstream in(ns_->run(command));
    Lines out;
    for (std::string line; std::getline(in, line);) {
      if (keep.empty() || line.find(keep) != std::string::npos) out.push_back(line);
    }
    return out;
  }
  std::string table(const std::string& nexthop) {
    return std::to_string(w_->manager().routeTable(Velnet::IpGenAddr::parse(nexthop)));
  }
  std::string hexMark(const std::string& nexthop) {
    std::ostringstream os;
    os << "0x" << std::hex << w_->manager().fwmark(Velnet::IpGenAddr::parse(nexthop));
    return os.str();
  }

  std::unique_ptr<NetworkNamespace> ns_;
  std::unique_ptr<PbrSystem> w_;
};

TEST_F(PluginKernel, APolicyComesUpFailsOverAndBackAndGoes) {
  PbrSystem& w = *w_;
  w.accessList("web", {"10 permit tcp any any eq 80"});
  w.accessList("web6", {"10 permit tcp any any eq 80"}, true);
  w.classMap("web", {"web"});
  w.classMap("web6", {"web6"});
  w.address("wm0", "192.0.2.254/24");
  w.address("wm2", "198.51.100.254/24");
  w.address6("wm0", "2001:db8::fe/64");
  w.policy("edge", {{"web", {"192.0.2.1", "198.51.100.1"}}, {"web6", {"2001:db8::1"}}});
  w.apply("wm1", "edge");
  w.startOnTheKernel();
  w.settle();

  for (const auto option : {PolicyMap::matchIpv4, PolicyMap::matchIpv6}) {
    const auto& iptables = *w.plugin->aclHelper()->aclTypeData(option)->iptablesManager();
    EXPECT_EQ(iptables.batchesFailed(), 0u) << iptables.lastError();
  }
  const std::string c4 = w.chain("edge");
  const std::string c6 = w.chain("edge", PolicyMap::matchIpv6);
  const std::string web = " -p tcp -m tcp --dport 80 -j MARK --set-xmark ";
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "MARK"),
            (Lines{"-A " + c4 + web + hexMark("192.0.2.1") + "/0xffffffff"}));
  EXPECT_EQ(read("ip6tables -t mangle -S " + c6, "MARK"),
            (Lines{"-A " + c6 + web + hexMark("2001:db8::1") + "/0xffffffff"}));
  EXPECT_EQ(read("iptables -t mangle -S TAMBRO_PBR_INTF", "-A"),
            (Lines{"-A TAMBRO_PBR_INTF -i wm1 -j " + c4}));
  EXPECT_EQ(read("ip rule", "fwmark").size(), 2u);
  EXPECT_EQ(read("ip -6 rule", "fwmark").size(), 1u);
  EXPECT_EQ(read("ip route show table " + table("192.0.2.1")),
            (Lines{"default via 192.0.2.1 dev wm0 "}));
  EXPECT_EQ(read("ip route show table " + table("198.51.100.1")),
            (Lines{"default via 198.51.100.1 dev wm2 "}));

  // The first nexthop's subnet goes: the class marks for the second.
  w.address("wm0", "");
  w.settle();
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "MARK"),
            (Lines{"-A " + c4 + web + hexMark("198.51.100.1") + "/0xffffffff"}));
  EXPECT_EQ(read("ip rule", "fwmark").size(), 1u);

  // It comes back: first in the list again.
  w.address("wm0", "192.0.2.254/24");
  w.settle();
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "MARK"),
            (Lines{"-A " + c4 + web + hexMark("192.0.2.1") + "/0xffffffff"}));
  EXPECT_EQ(read("ip rule", "fwmark").size(), 2u);

  w.pbrConfig->policyMapTypeConfig()->policyMapDel("edge");
  w.settle();
  for (const auto option : {PolicyMap::matchIpv4, PolicyMap::matchIpv6}) {
    const auto& iptables = *w.plugin->aclHelper()->aclTypeData(option)->iptablesManager();
    EXPECT_EQ(iptables.batchesFailed(), 0u) << iptables.lastError();
  }
  EXPECT_TRUE(read("iptables -t mangle -S", c4).empty());
  EXPECT_TRUE(read("ip6tables -t mangle -S", c6).empty());
  EXPECT_EQ(read("iptables -t mangle -S TAMBRO_PBR_INTF"), (Lines{"-N TAMBRO_PBR_INTF"}));
  EXPECT_TRUE(read("ip rule", "fwmark").empty());
  EXPECT_TRUE(read("ip -6 rule", "fwmark").empty());
}

TEST_F(PluginKernel, AWaitingNexthopASharedNexthopAndAPassthroughSwitch) {
  PbrSystem& w = *w_;
  w.accessList("web", {"10 permit tcp any any eq 80"});
  w.classMap("web", {"web"});
  w.address("wm2", "198.51.100.254/24");
  // 192.0.2.1 lies in no connected subnet yet (wm0's address is not known).
  w.policy("edge", {{"web", {"192.0.2.1"}}});
  w.apply("wm1", "edge");
  w.startOnTheKernel();
  w.settle();
  const std::string c4 = w.chain("edge");
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "-A"),
            (Lines{"-A " + c4 + " -p tcp -m tcp --dport 80",
                   "-A " + c4 + " -p tcp -m tcp --dport 80 -j ACCEPT"}));
  EXPECT_TRUE(read("ip rule", "fwmark").empty());

  w.address("wm0", "192.0.2.254/24");
  w.settle();
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "MARK").size(), 1u);
  const Lines rulesBefore = read("ip rule", "fwmark");
  ASSERT_EQ(rulesBefore.size(), 1u);

  // A new list that keeps 192.0.2.1: its rule and route are never touched.
  w.policy("edge", {{"web", {"192.0.2.1", "198.51.100.1"}}});
  w.settle();
  Lines rulesAfter = read("ip rule", "fwmark");
  ASSERT_EQ(rulesAfter.size(), 2u);
  EXPECT_EQ(rulesAfter[0], rulesBefore[0]);
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "MARK"),
            (Lines{"-A " + c4 + " -p tcp -m tcp --dport 80 -j MARK --set-xmark " +
                   hexMark("192.0.2.1") + "/0xffffffff"}));

  // The class becomes a passthrough: no mark, no rules, no routes in use.
  w.policy("edge", {{"web", {}}});
  w.settle();
  EXPECT_TRUE(read("iptables -t mangle -S " + c4, "MARK").empty());
  EXPECT_EQ(read("iptables -t mangle -S " + c4, "-A").size(), 2u);
  EXPECT_TRUE(read("ip rule", "fwmark").empty());
}

}  // namespace
}  // namespace waymark::test
