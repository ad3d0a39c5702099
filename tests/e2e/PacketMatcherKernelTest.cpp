// The matcher behind `waymarkd explain` against the kernel itself: a policy's
// rules, rendered by the iptables side's own renderer, are loaded into a
// mangle chain of a private namespace in the policy's order, one ACCEPT rule
// per sub-rule; random packets of both families are sent through it with
// raw sockets; for each, the rule whose counter moved must be one of the
// class the matcher names, and none must move when it names none.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "insight/PacketMatcher.h"
#include "kernel/MangleReadback.h"
#include "policymap/IptablesManager.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Waymark::Packet;

const char* const kConfig = R"(access-lists:
  ssh: [permit tcp 10.1.0.0/16 any eq 22]
  webs: [permit tcp any 198.51.100.0/25 eq 80 443 syn, permit tcp any any range 8000 8080]
  dns: [permit udp any any eq 53, permit udp 10.0.0.0/8 any lt 1024]
  high: [permit udp any host 198.51.100.7 gt 40000]
  est: [permit tcp any any established]
  lan: [permit ip 10.0.0.0/8 any]
  web6: {ipv6: true, rules: [permit tcp any 2001:db8:1::/48 eq 80 443, permit udp 2001:db8::/32 any range 50 60]}
  est6: {ipv6: true, rules: [permit tcp any any ack fin]}
class-maps:
  ssh: [ssh]
  web: [webs, web6]
  dns: [dns]
  high: [high]
  est: [est, est6]
  lan: [lan]
policy-maps:
  edge:
    - {class: ssh, nexthops: [192.0.2.1]}
    - {class: web, nexthops: [192.0.2.1, '2001:db8::1']}
    - {class: dns, nexthops: [192.0.2.1]}
    - {class: high, nexthops: [192.0.2.1]}
    - {class: est, nexthops: [192.0.2.1, '2001:db8::1']}
    - {class: lan, passthrough: true}
interfaces:
  wm0: edge
)";

constexpr const char* kChain = "WMTEST";

class PacketMatcherKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->run(
        "ip addr add 192.0.2.10/24 dev wm0 && ip -6 addr add 2001:db8:ffff::10/64 dev wm0 nodad"
        " && ip route add default via 192.0.2.1 && ip -6 route add default via 2001:db8:ffff::1"
        " && ip neigh add 192.0.2.1 lladdr 02:00:00:00:00:01 dev wm0"
        " && ip -6 neigh add 2001:db8:ffff::1 lladdr 02:00:00:00:00:01 dev wm0");
    model_ = Waymark::ConfigLoader::loadString(kConfig, "matcher.yaml");
    for (const bool v6 : {false, true}) load(v6);
  }

  // The policy's sub-rules of one family, in the chain's order, each an
  // ACCEPT rule; ruleClass_ says whose each position is.
  void load(bool v6) {
    const AclUtils::IptablesManager renderer(v6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4, nullptr);
    std::string text = std::string("*mangle\n-N ") + kChain + "\n";
    auto& owners = ruleClass_[v6 ? 1 : 0];
    for (const auto& c : *model_.policyMap("edge")) {
      for (const auto& listName : model_.classMaps.at(c.className)) {
        const auto& list = model_.accessLists.at(listName);
        if (list.ipv6 != v6) continue;
        for (const auto& [seq, rule] : list.rules) {
          for (const auto& flags : rule.subRuleFlags()) {
            Acl::AclRuleConfig copy = rule;
            copy.tcpFlag = flags;
            text += std::string("-A ") + kChain + " " +
                    renderer.doGetRuleMatch(copy, AclUtils::ruleMatchOnly) + " -j ACCEPT\n";
            owners.push_back(c.className);
          }
        }
      }
    }
    text += std::string("-A OUTPUT -o wm0 -j ") + kChain + "\nCOMMIT\n";
    ns_->run(std::string(v6 ? "ip6tables-restore" : "iptables-restore") + " --noflush <<'EOF'\n" +
             text + "EOF");
  }

  std::vector<uint64_t> counters(bool v6) const {
    std::string error;
    const auto save = Kernel::MangleReadback::save(v6, 10, &error, true);
    EXPECT_EQ(error, "");
    std::vector<uint64_t> out;
    const auto all = Kernel::MangleReadback::ruleCounters(save);
    const auto it = all.find(kChain);
    if (it != all.end()) {
      for (const auto& c : it->second) out.push_back(c.packets);
    }
    return out;
  }

  // Sends `p` out of wm0 with a raw socket and its header written here.
  void send(const Packet& p) const {
    const bool v6 = p.dst.isV6();
    const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_RAW, IPPROTO_RAW);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    std::vector<uint8_t> b(v6 ? 40 : 20, 0);
    std::vector<uint8_t> l4(p.protocol == 6 ? 20 : 8, 0);
    if (p.protocol == 6 || p.protocol == 17) {
      l4[0] = *p.sport >> 8;
      l4[1] = *p.sport & 0xff;
      l4[2] = *p.dport >> 8;
      l4[3] = *p.dport & 0xff;
      if (p.protocol == 6) {
        l4[12] = 5 << 4;
        l4[13] = p.tcpFlags;
      } else {
        l4[5] = 8;
      }
    } else {
      l4[0] = v6 ? 128 : 8;  // echo request
    }
    const size_t total = b.size() + l4.size();
    if (v6) {
      b[0] = 0x60;
      b[4] = static_cast<uint8_t>(l4.size() >> 8);
      b[5] = static_cast<uint8_t>(l4.size());
      b[6] = p.protocol;
      b[7] = 64;
      std::memcpy(&b[8], p.src.v6().bytes().data(), 16);
      std::memcpy(&b[24], p.dst.v6().bytes().data(), 16);
    } else {
      b[0] = 0x45;
      b[2] = static_cast<uint8_t>(total >> 8);
      b[3] = static_cast<uint8_t>(total);
      b[8] = 64;
      b[9] = p.protocol;
      const uint32_t s = htonl(p.src.v4().value());
      const uint32_t d = htonl(p.dst.v4().value());
      std::memcpy(&b[12], &s, 4);
      std::memcpy(&b[16], &d, 4);
    }
    b.insert(b.end(), l4.begin(), l4.end());
    sockaddr_storage to{};
    socklen_t len = 0;
    if (v6) {
      auto* a = reinterpret_cast<sockaddr_in6*>(&to);
      a->sin6_family = AF_INET6;
      std::memcpy(&a->sin6_addr, p.dst.v6().bytes().data(), 16);
      len = sizeof *a;
    } else {
      auto* a = reinterpret_cast<sockaddr_in*>(&to);
      a->sin_family = AF_INET;
      a->sin_addr.s_addr = htonl(p.dst.v4().value());
      len = sizeof *a;
    }
    const ssize_t sent = sendto(fd, b.data(), b.size(), 0, reinterpret_cast<sockaddr*>(&to), len);
    const int err = errno;
    close(fd);
    ASSERT_EQ(sent, static_cast<ssize_t>(b.size())) << std::strerror(err);
  }

  std::unique_ptr<NetworkNamespace> ns_;
  Waymark::ConfigModel model_;
  std::vector<std::string> ruleClass_[2];
};

Packet randomPacket(std::mt19937& rng) {
  auto pick = [&](const std::vector<std::string>& from) {
    return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng)];
  };
  const bool v6 = rng() % 3 == 0;
  Packet p;
  p.in = "wm0";
  const uint8_t protocols[] = {6, 6, 17, 17, static_cast<uint8_t>(v6 ? 58 : 1)};
  p.protocol = protocols[rng() % 5];
  if (v6) {
    p.src = Velnet::IpGenAddr::parse(pick({"2001:db8::5", "2001:db8:9::1", "2001:db9::1"}));
    p.dst = Velnet::IpGenAddr::parse(pick({"2001:db8:1::80", "2001:db8:2::1", "2001:db9::7"}));
  } else {
    p.src = Velnet::IpGenAddr::parse(pick({"10.1.2.3", "10.9.0.1", "203.0.113.5", "192.0.2.77"}));
    p.dst = Velnet::IpGenAddr::parse(
        pick({"198.51.100.7", "198.51.100.200", "203.0.113.9", "198.51.100.100"}));
  }
  if (p.protocol == 6 || p.protocol == 17) {
    const uint16_t ports[] = {22,   53,   55,   80,   443,   1000,  1023,
                              1024, 8000, 8080, 8081, 40000, 40001, 65535};
    p.sport = ports[rng() % 14];
    p.dport = ports[rng() % 14];
  }
  if (p.protocol == 6) p.tcpFlags = static_cast<uint8_t>(rng() % 64);
  return p;
}

TEST_F(PacketMatcherKernel, TheKernelCountsEachPacketForTheClassTheMatcherNames) {
  std::mt19937 rng(20261123);
  int matched = 0;
  for (int i = 0; i < 240; ++i) {
    const Packet p = randomPacket(rng);
    const bool v6 = p.dst.isV6();
    const auto before = counters(v6);
    send(p);
    const auto after = counters(v6);
    ASSERT_EQ(before.size(), after.size());
    std::string kernelClass;
    for (size_t r = 0; r < after.size(); ++r) {
      if (after[r] != before[r]) kernelClass = ruleClass_[v6 ? 1 : 0][r];
    }
    const auto m = Waymark::PacketMatcher::match(model_, p);
    const std::string named = m.policyClass ? m.policyClass->className : "";
    matched += named.empty() ? 0 : 1;
    ASSERT_EQ(kernelClass, named) << "packet " << i << ": proto " << int(p.protocol) << " "
                                  << p.src.stringValue() << ":" << p.sport.value_or(0) << " -> "
                                  << p.dst.stringValue() << ":" << p.dport.value_or(0) << " flags "
                                  << int(p.tcpFlags);
  }
  // Both outcomes were tried many times.
  EXPECT_GT(matched, 60);
  EXPECT_LT(matched, 200);
}

}  // namespace
}  // namespace waymark::test
