// Which class takes a packet, found the way the policy's chain finds it.
#include "insight/PacketMatcher.h"

#include <gtest/gtest.h>

#include <string>

#include "config/ConfigLoader.h"

namespace Waymark {
namespace {

const ConfigModel kModel = ConfigLoader::loadString(R"(access-lists:
  ssh: [10 permit tcp any any eq 22]
  lan: [10 permit ip 10.0.0.0/8 any]
  web: [10 permit tcp any 192.0.2.0/24 eq 80 443, 20 permit tcp any any range 8000 8099 syn]
  high: [permit udp any any gt 1023, permit udp any any lt 53]
  est: [permit tcp any any established]
  web6: {ipv6: true, rules: [permit tcp any 2001:db8::/32 eq 80]}
class-maps:
  ssh: [ssh]
  lan: [lan]
  web: [web, web6]
  high: [high]
  est: [est]
policy-maps:
  edge:
    - {class: ssh, nexthops: [192.0.2.1]}
    - {class: lan, passthrough: true}
    - {class: web, nexthops: [192.0.2.9, '2001:db8::9']}
    - {class: high, nexthops: [192.0.2.1]}
    - {class: est, nexthops: [192.0.2.1]}
interfaces:
  eth1: edge
)",
                                                    "f");

Packet packet(const std::string& proto, const std::string& src, const std::string& dst,
              std::optional<uint16_t> dport = std::nullopt, uint8_t flags = 0,
              std::optional<uint16_t> sport = 40000) {
  Packet p;
  p.in = "eth1";
  p.protocol = proto == "tcp" ? 6 : proto == "udp" ? 17 : 1;
  p.src = Velnet::IpGenAddr::parse(src);
  p.dst = Velnet::IpGenAddr::parse(dst);
  p.sport = proto == "icmp" ? std::nullopt : sport;
  p.dport = dport;
  p.tcpFlags = flags;
  return p;
}

// "class list seq flags", or "" for no class.
std::string taken(const Packet& p) {
  const auto m = PacketMatcher::match(kModel, p);
  if (m.policyClass == nullptr) return "";
  return m.policyClass->className + " " + m.list + " " + std::to_string(m.rule->seqNo) + " " +
         std::to_string(m.subRuleFlags);
}

TEST(PacketMatcherTest, TheFirstClassInOrderTakesThePacket) {
  // SSH from the LAN is ssh's: it comes first, though lan covers it too.
  EXPECT_EQ(taken(packet("tcp", "10.1.1.1", "198.51.100.7", 22)), "ssh ssh 10 0");
  EXPECT_EQ(taken(packet("tcp", "10.1.1.1", "192.0.2.5", 80)), "lan lan 10 0");
  EXPECT_EQ(taken(packet("tcp", "203.0.113.1", "192.0.2.5", 443)), "web web 10 0");
  EXPECT_EQ(taken(packet("tcp", "203.0.113.1", "198.51.100.5", 443, Acl::TcpFlag::ack)),
            "est est 10 16");
  EXPECT_EQ(taken(packet("tcp", "203.0.113.1", "198.51.100.5", 443)), "");
}

TEST(PacketMatcherTest, PortsMatchAsIptablesRangesDo) {
  const std::string from = "203.0.113.1";
  EXPECT_EQ(taken(packet("udp", from, "198.51.100.5", 1024)), "high high 10 0");
  EXPECT_EQ(taken(packet("udp", from, "198.51.100.5", 1023)), "");
  EXPECT_EQ(taken(packet("udp", from, "198.51.100.5", 52)), "high high 20 0");
  EXPECT_EQ(taken(packet("udp", from, "198.51.100.5", 53)), "");
  EXPECT_EQ(taken(packet("tcp", from, "198.51.100.5", 8099, Acl::TcpFlag::syn)), "web web 20 2");
  EXPECT_EQ(taken(packet("tcp", from, "198.51.100.5", 8100, Acl::TcpFlag::syn)), "");
}

TEST(PacketMatcherTest, TcpFlagsMatchWhenEverySubRuleFlagIsSet) {
  const std::string from = "203.0.113.1";
  // A rule with flags needs them; other flags may be set too.
  EXPECT_EQ(taken(packet("tcp", from, "198.51.100.5", 8000, Acl::TcpFlag::syn | Acl::TcpFlag::ack)),
            "web web 20 2");
  // "established" is two sub-rules, ACK (16) and RST (4), by flag value.
  EXPECT_EQ(taken(packet("tcp", from, "198.51.100.5", 8000, Acl::TcpFlag::rst | Acl::TcpFlag::ack)),
            "est est 10 4");
  EXPECT_EQ(taken(packet("tcp", from, "198.51.100.5", 8000, Acl::TcpFlag::fin)), "");
}

TEST(PacketMatcherTest, OnlyListsOfThePacketsFamilyMatch) {
  EXPECT_EQ(taken(packet("tcp", "2001:db8:1::1", "2001:db8::5", 80)), "web web6 10 0");
  EXPECT_EQ(taken(packet("tcp", "2001:db8:1::1", "2001:db9::5", 80)), "");
  EXPECT_EQ(taken(packet("icmp", "10.1.1.1", "198.51.100.5")), "lan lan 10 0");
}

TEST(PacketMatcherTest, AnInterfaceWithoutAPolicyHasNone) {
  Packet p = packet("tcp", "10.1.1.1", "198.51.100.7", 22);
  p.in = "eth9";
  const auto m = PacketMatcher::match(kModel, p);
  EXPECT_EQ(m.policy, "");
  EXPECT_EQ(m.policyClass, nullptr);
  EXPECT_EQ(PacketMatcher::match(kModel, packet("tcp", "1.1.1.1", "1.1.1.2", 1)).policy, "edge");
}

}  // namespace
}  // namespace Waymark
