// The access-list grammar and its rendering into iptables match options.
#include <gtest/gtest.h>

#include <string>

#include "framework/Errors.h"
#include "policymap/AclRuleParser.h"
#include "policymap/IptablesManager.h"

namespace {

using Acl::AclRuleParser;

// The match options of the rule's first sub-rule.
std::string match(const std::string& text, bool ipv6 = false) {
  Acl::AclRuleConfig rule = AclRuleParser::parse(text, ipv6);
  rule.tcpFlag = rule.subRuleFlags().front();
  const AclUtils::IptablesManager manager(ipv6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4, nullptr);
  return manager.doGetRuleMatch(rule, AclUtils::ruleMatchOnly);
}

std::string error(const std::string& text, bool ipv6 = false) {
  try {
    AclRuleParser::parse(text, ipv6);
  } catch (const Vix::ParseError& e) {
    return e.what();
  }
  return "no error";
}

TEST(RuleMatchTest, AddressesAndProtocols) {
  EXPECT_EQ(match("permit ip any any"), "");
  EXPECT_EQ(match("permit ip host 192.0.2.7 198.51.100.0/24"),
            "-s 192.0.2.7/32 -d 198.51.100.0/24");
  EXPECT_EQ(match("permit icmp 10.1.2.3/8 any"), "-p icmp -s 10.0.0.0/8");
  EXPECT_EQ(match("permit 47 any any"), "-p 47");
  EXPECT_EQ(match("permit ipv6 2001:db8::/32 host 2001:db8::7", true),
            "-s 2001:db8::/32 -d 2001:db8::7/128");
  EXPECT_EQ(match("permit icmpv6 any any", true), "-p icmpv6");
}

TEST(RuleMatchTest, PortForms) {
  EXPECT_EQ(match("permit tcp any any eq 80"), "-p tcp -m tcp --dport 80");
  EXPECT_EQ(match("permit tcp any any eq 80 443"), "-p tcp -m multiport --dports 80,443");
  EXPECT_EQ(match("permit udp any range 1024 65535 any"), "-p udp -m udp --sport 1024:65535");
  EXPECT_EQ(match("permit udp 2001:db8::/32 any gt 1023", true),
            "-p udp -s 2001:db8::/32 -m udp --dport 1024:65535");
  EXPECT_EQ(match("permit sctp any lt 1024 any eq 9 10"),
            "-p sctp -m sctp --sport 0:1023 -m multiport --dports 9,10");
  EXPECT_EQ(match("permit tcp any eq 1 2 any eq 3 4"),
            "-p tcp -m multiport --sports 1,2 -m multiport --dports 3,4");
}

TEST(RuleMatchTest, FlagFormsAndSubRules) {
  EXPECT_EQ(match("permit tcp any range 1024 65535 host 192.0.2.7 syn"),
            "-p tcp -d 192.0.2.7/32 -m tcp --sport 1024:65535 --tcp-flags SYN SYN");
  EXPECT_EQ(match("permit tcp any any syn ack"), "-p tcp -m tcp --tcp-flags SYN,ACK SYN,ACK");
  const auto established = AclRuleParser::parse("permit tcp any any established", false);
  ASSERT_EQ(established.subRuleFlags().size(), 2u);
  EXPECT_EQ(established.subRuleFlags()[0].value(), Acl::TcpFlag::rst);
  EXPECT_EQ(established.subRuleFlags()[1].value(), Acl::TcpFlag::ack);
  EXPECT_EQ(AclRuleParser::parse("permit tcp any any", false).subRuleFlags().front().value(), 0);
}

TEST(RuleMatchTest, TheRuleTextReadsBackTheSame) {
  for (const char* text : {"10 permit tcp 10.0.0.0/8 any eq 80 443",
                           "20 permit tcp any range 1024 65535 host 192.0.2.7 syn",
                           "30 permit tcp any any established", "40 permit ip any any"}) {
    EXPECT_EQ(AclRuleParser::parse(text, false).text(), text);
  }
  // Found by the rule fuzzer: an unnumbered rule's text must read back too.
  for (const char* text : {"permit udp 2001:db8::/32 any gt 1023", "permit 47 any any"}) {
    const auto rule = AclRuleParser::parse(text, true);
    EXPECT_EQ(rule.text(), text);
    EXPECT_EQ(AclRuleParser::parse(rule.text(), true), rule);
  }
}

TEST(RuleMatchTest, BadRulesAreRejectedNamingTheOffendingWord) {
  EXPECT_EQ(error("deny ip any any"),
            "deny rules are not supported: a policy's classes only select traffic to steer");
  EXPECT_EQ(error("permit tcpx any any"), "unknown protocol 'tcpx'");
  EXPECT_EQ(error("permit tcp any any eq 70000"), "invalid port '70000' (0 to 65535)");
  EXPECT_EQ(error("permit tcp 10.0.0.0/33 any"),
            "invalid prefix length in '10.0.0.0/33' (0 to 32)");
  EXPECT_EQ(error("permit ip 2001:db8::/32 any"),
            "IPv6 address '2001:db8::/32' in an IPv4 access list");
  EXPECT_EQ(error("permit ip any any", true), "protocol 'ip' in an IPv6 access list");
  EXPECT_EQ(error("permit icmp any any", true), "protocol 'icmp' in an IPv6 access list");
  // Found by the rule fuzzer: by number as by name, or the text would not
  // read back.
  EXPECT_EQ(error("permit 1 any any", true), "protocol '1' in an IPv6 access list");
  EXPECT_EQ(error("permit 58 any any"), "protocol '58' in an IPv4 access list");
  // iptables reads -p 0 as every protocol.
  EXPECT_EQ(error("permit 0 any any"),
            "protocol 0 (iptables takes it for every protocol; say ip or ipv6)");
  EXPECT_EQ(error("permit ip any any eq 80"),
            "ports ('eq') are only allowed with tcp, udp or sctp");
  EXPECT_EQ(error("permit udp any any syn"),
            "unexpected 'syn' (TCP flags are only allowed with tcp)");
  EXPECT_EQ(error("permit tcp any any bogus"), "unknown TCP flag 'bogus'");
  EXPECT_EQ(error("permit tcp any any range 9 8"), "empty port range 9 8");
  EXPECT_EQ(error("permit tcp any any gt 65535"), "no port is gt 65535");
  EXPECT_EQ(error("permit tcp any"), "missing destination");
  EXPECT_EQ(error("permit tcp any any $(reboot)"), "unknown TCP flag '$(reboot)'");
  EXPECT_EQ(error("permit tcp any any eq 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16"),
            "at most 15 ports after eq, not 16");
  EXPECT_EQ(error("0 permit ip any any"), "invalid sequence number '0'");
  EXPECT_EQ(error("10 allow ip any any"), "expected 'permit', not 'allow'");
}

}  // namespace
