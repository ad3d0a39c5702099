// The iptables side against the real kernel, in a private network namespace:
// the text it produces for two policies loads through iptables-restore and
// reads back as expected with iptables -S, through a nexthop change and a
// deletion; a batch the kernel refuses is recorded and the queue goes on.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/iptables/IptablesFixture.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Lines = std::vector<std::string>;
using PolicyMap::matchIpv4;
using PolicyMap::matchIpv6;

class IptablesKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    world_ = std::make_unique<World>();
  }

  // The fixture's world, but writing through the real iptables-restore.
  struct World : IptablesTest {
    World() {
      helper = Pbr::Iptables::aclHelperFactory(manager);
      helper->hwInit();
    }
    void TestBody() override {}
  };

  // The mangle table's rules and chains as iptables reads them back, without
  // the built-in policies.
  Lines readBack(const char* tool) {
    std::istringstream in(ns_->run(std::string(tool) + " -t mangle -S"));
    Lines out;
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, 3, "-P ") != 0) out.push_back(line);
    }
    // Interface jumps come in the interface set's own order.
    const std::string jump = "-A TAMBRO_PBR_INTF -i ";
    const auto jumps = std::find_if(out.begin(), out.end(), [&](const std::string& l) {
      return l.compare(0, jump.size(), jump) == 0;
    });
    std::sort(jumps, out.end());
    return out;
  }
  std::string chain(const IptablesTest::PolicyData& p, PolicyMap::ClassMapMatchOption o) {
    return world_->helper->aclTypeData(o)->acl(p->key())->chainName();
  }

  std::unique_ptr<NetworkNamespace> ns_;
  std::unique_ptr<World> world_;
};

TEST_F(IptablesKernel, TwoPoliciesLoadReplaceAndDeleteAsWritten) {
  World& w = *world_;
  w.accessList("web", {"10 permit tcp 10.0.0.0/8 any eq 80 443",
                       "20 permit tcp any range 1024 65535 host 192.0.2.7 established"});
  w.accessList("voice", {"permit udp any any eq 5060", "permit sctp any lt 1024 any eq 9 10"});
  w.accessList("web6", {"permit udp 2001:db8::/32 any gt 1023", "permit icmpv6 any any"}, true);
  w.programmed("192.0.2.1");
  const auto edge = w.policy("edge", {"eth1", "eth2"});
  const auto web = w.klass("web", {"web"});
  const auto voice = w.klass("voice", {"voice"});
  const auto web6 = w.klass("web6", {"web6"});
  web->nexthopValueIs(Velnet::IpGenAddr::parse("192.0.2.1"));
  for (const auto option : {matchIpv4, matchIpv6}) w.helper->createPolicy(edge, option);
  w.addRules(edge, web, "web");
  w.addRules(edge, voice, "voice");
  w.addRules(edge, web6, "web6");
  w.drained();
  const std::string c4 = chain(edge, matchIpv4);
  const std::string c6 = chain(edge, matchIpv6);

  Lines v4 = readBack("iptables");
  EXPECT_EQ(v4,
            (Lines{
                "-N " + c4,
                "-N TAMBRO_PBR_INTF",
                "-A PREROUTING -j TAMBRO_PBR_INTF",
                "-A " + c4 +
                    " -s 10.0.0.0/8 -p tcp -m multiport --dports 80,443 -j MARK --set-xmark "
                    "0x2/0xffffffff",
                "-A " + c4 + " -s 10.0.0.0/8 -p tcp -m multiport --dports 80,443 -j ACCEPT",
                "-A " + c4 +
                    " -d 192.0.2.7/32 -p tcp -m tcp --sport 1024:65535 --tcp-flags RST RST -j "
                    "MARK --set-xmark 0x2/0xffffffff",
                "-A " + c4 +
                    " -d 192.0.2.7/32 -p tcp -m tcp --sport 1024:65535 --tcp-flags RST RST -j "
                    "ACCEPT",
                "-A " + c4 +
                    " -d 192.0.2.7/32 -p tcp -m tcp --sport 1024:65535 --tcp-flags ACK ACK -j "
                    "MARK --set-xmark 0x2/0xffffffff",
                "-A " + c4 +
                    " -d 192.0.2.7/32 -p tcp -m tcp --sport 1024:65535 --tcp-flags ACK ACK -j "
                    "ACCEPT",
                "-A " + c4 + " -p udp -m udp --dport 5060",
                "-A " + c4 + " -p udp -m udp --dport 5060 -j ACCEPT",
                "-A " + c4 + " -p sctp -m sctp --sport 0:1023 -m multiport --dports 9,10",
                "-A " + c4 + " -p sctp -m sctp --sport 0:1023 -m multiport --dports 9,10 -j ACCEPT",
                "-A TAMBRO_PBR_INTF -i eth1 -j " + c4,
                "-A TAMBRO_PBR_INTF -i eth2 -j " + c4,
            }));
  EXPECT_EQ(readBack("ip6tables"),
            (Lines{
                "-N " + c6,
                "-N TAMBRO_PBR_INTF",
                "-A PREROUTING -j TAMBRO_PBR_INTF",
                "-A " + c6 + " -s 2001:db8::/32 -p udp -m udp --dport 1024:65535",
                "-A " + c6 + " -s 2001:db8::/32 -p udp -m udp --dport 1024:65535 -j ACCEPT",
                "-A " + c6 + " -p ipv6-icmp",
                "-A " + c6 + " -p ipv6-icmp -j ACCEPT",
                "-A TAMBRO_PBR_INTF -i eth1 -j " + c6,
                "-A TAMBRO_PBR_INTF -i eth2 -j " + c6,
            }));

  // voice's nexthop comes up: its pairs are replaced in place.
  w.programmed("192.0.2.9");
  voice->nexthopValueIs(Velnet::IpGenAddr::parse("192.0.2.9"));
  w.addRules(edge, voice, "voice");
  w.drained();
  v4 = readBack("iptables");
  EXPECT_EQ(v4[9], "-A " + c4 + " -p udp -m udp --dport 5060 -j MARK --set-xmark 0x3/0xffffffff");
  EXPECT_EQ(v4[11], "-A " + c4 +
                        " -p sctp -m sctp --sport 0:1023 -m multiport --dports 9,10 -j MARK "
                        "--set-xmark 0x3/0xffffffff");
  EXPECT_EQ(v4.size(), 15u);

  w.helper->deletePolicy(edge, matchIpv4);
  w.drained();
  EXPECT_EQ(readBack("iptables"),
            (Lines{"-N TAMBRO_PBR_INTF", "-A PREROUTING -j TAMBRO_PBR_INTF"}));
  EXPECT_EQ(readBack("ip6tables").size(), 9u);
}

TEST_F(IptablesKernel, ARefusedBatchIsRecordedWithItsLineAndTheQueueGoesOn) {
  World& w = *world_;
  const auto v4 = w.helper->aclTypeData(matchIpv4);
  v4->rulesPerInvocationIs(1);
  v4->enqueueRule("-N GOOD_1\n");
  v4->enqueueRule("-A NO_SUCH_CHAIN -j ACCEPT\n");
  v4->enqueueRule("-N GOOD_2\n");
  w.drained();
  const auto& iptables = *v4->iptablesManager();
  EXPECT_EQ(iptables.batchesFailed(), 1u);
  EXPECT_NE(iptables.lastError().find("iptables-restore exit code"), std::string::npos)
      << iptables.lastError();
  EXPECT_NE(iptables.lastError().find("[failing line: -A NO_SUCH_CHAIN -j ACCEPT]"),
            std::string::npos)
      << iptables.lastError();
  const Lines back = readBack("iptables");
  EXPECT_NE(std::find(back.begin(), back.end(), "-N GOOD_1"), back.end());
  EXPECT_NE(std::find(back.begin(), back.end(), "-N GOOD_2"), back.end());
}

TEST_F(IptablesKernel, ABatchRunAsSeveralRestoresIsReportedOnceWithTheLineThatFailed) {
  World& w = *world_;
  const auto v4 = w.helper->aclTypeData(matchIpv4);
  // The replacement of a rule appended in the same batch is run as a second
  // restore; its third line is the one the kernel refuses.
  v4->enqueueRule(
      "-N SPLIT_1\n-A SPLIT_1 -p tcp\n-R SPLIT_1 1 -p udp\n-A SPLIT_1 -p icmp\n"
      "-A NO_SUCH_CHAIN -j ACCEPT\n");
  w.drained();
  const auto& iptables = *v4->iptablesManager();
  EXPECT_EQ(iptables.batchesFailed(), 1u);
  EXPECT_EQ(iptables.batchesWritten(), 1u);  // the set-up
  EXPECT_NE(iptables.lastError().find("[failing line: -A NO_SUCH_CHAIN -j ACCEPT]"),
            std::string::npos)
      << iptables.lastError();
}

}  // namespace
}  // namespace waymark::test
