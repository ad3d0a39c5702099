#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/Errors.h"
#include "net/IntfId.h"
#include "net/Ip6Addr.h"
#include "net/Ip6AddrWithMask.h"
#include "net/Ip6Prefix.h"
#include "net/IpAddr.h"
#include "net/IpAddrWithMask.h"
#include "net/IpGenAddr.h"
#include "net/Prefix.h"

namespace {

using namespace Velnet;

// Expects `f` to throw an error of type E whose text is `text`.
template <class E, class F>
void expectError(F&& f, const std::string& text) {
  try {
    f();
    ADD_FAILURE() << "no error, expected: " << text;
  } catch (const E& e) {
    EXPECT_EQ(e.what(), text);
  }
}

TEST(IpAddrTest, ReadsAndWritesTheDottedQuad) {
  const IpAddr a = IpAddr::parse("192.0.2.10");
  EXPECT_EQ(a.value(), 0xc000020au);
  EXPECT_EQ(a.stringValue(), "192.0.2.10");
  EXPECT_EQ(IpAddr::parse("0.0.0.0").stringValue(), "0.0.0.0");
  EXPECT_EQ(IpAddr::parse("255.255.255.255").value(), 0xffffffffu);
  EXPECT_LT(IpAddr::parse("9.255.255.255"), IpAddr::parse("10.0.0.0"));
}

TEST(IpAddrTest, RejectsMalformedTextNamingIt) {
  for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "01.2.3.4",
                          "1..2.3", "a.b.c.d", "1.2.3.-4", "1.2.3.4/24", "1234.1.1.1"}) {
    EXPECT_FALSE(IpAddr::tryParse(bad)) << bad;
  }
  expectError<Vix::ParseError>([] { IpAddr::parse("10.0.0.256"); },
                               "invalid IPv4 address: '10.0.0.256'");
}

TEST(Ip6AddrTest, WritesTheRecommendedCompressedForm) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
      {"2001:DB8::1", "2001:db8::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // leftmost of two equal runs
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single zero group stays
      {"2001:db8:0:0:0:1:0:0", "2001:db8::1:0:0"},       // the longest run wins
      {"::", "::"},
      {"::1", "::1"},
      {"fe80::", "fe80::"},
      {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},
      {"::ffff:c000:0201", "::ffff:192.0.2.1"},
      {"64:ff9b::192.0.2.1", "64:ff9b::c000:201"},
      {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Ip6Addr::parse(in).stringValue(), out) << in;
}

TEST(Ip6AddrTest, RejectsMalformedTextNamingIt) {
  for (const char* bad : {"", ":", ":::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3",
                          "12345::", "g::", "::1.2.3", "1.2.3.4::", "fe80::1%eth0",
                          ":1::", "1:2:3:4:5:6:7:8::", "::ffff:1.2.3.4:5"}) {
    EXPECT_FALSE(Ip6Addr::tryParse(bad)) << bad;
  }
  expectError<Vix::ParseError>([] { Ip6Addr::parse("2001:db8::g"); },
                               "invalid IPv6 address: '2001:db8::g'");
}

TEST(IpGenAddrTest, TheDefaultIsUnsetAndEveryAddressCarriesItsFamily) {
  const IpGenAddr unset;
  EXPECT_TRUE(unset.isUnset());
  const IpGenAddr v4 = IpGenAddr::parse("192.0.2.1");
  const IpGenAddr v6 = IpGenAddr::parse("2001:db8::1");
  EXPECT_TRUE(v4.isV4());
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v4.stringValue(), "192.0.2.1");
  EXPECT_EQ(v6.stringValue(), "2001:db8::1");
  EXPECT_NE(unset, IpGenAddr(IpAddr()));
  EXPECT_NE(IpGenAddr(IpAddr()), IpGenAddr(Ip6Addr()));
  EXPECT_LT(unset, v4);
  EXPECT_LT(v4, v6);
  EXPECT_EQ(v4.hash(), IpAddr::parse("192.0.2.1").hash());
  expectError<Vix::ParseError>([] { IpGenAddr::parse("nexthop"); },
                               "invalid IP address: 'nexthop'");
}

TEST(IpAddrWithMaskTest, HashesTheHostOrderAddressXorMaskLengthWithWangsHash) {
  // Values computed independently: wang32(address as a number ^ mask length).
  EXPECT_EQ(IpAddrWithMask::parse("10.0.0.1/24").hash(), 0x557b3e6cu);
  EXPECT_EQ(IpAddrWithMask::parse("192.0.2.1/32").hash(), 0xccc488eau);
  EXPECT_EQ(IpAddrWithMask::parse("0.0.0.0/0").hash(), 0xcaa3caa3u);
  EXPECT_EQ(IpAddrWithMask::parse("255.255.255.255/32").hash(), 0x18243a57u);
  EXPECT_EQ(IpAddrWithMask::parse("198.51.100.7/31").hash(), 0x08dea59au);
}

TEST(IpAddrWithMaskTest, TwoAddressesOfOneSubnetAreDifferentValues) {
  const auto a = IpAddrWithMask::parse("10.1.1.1/24");
  const auto b = IpAddrWithMask::parse("10.1.1.2/24");
  EXPECT_NE(a, b);
  EXPECT_EQ(Prefix(a), Prefix(b));
  EXPECT_EQ(a.stringValue(), "10.1.1.1/24");
  for (const char* bad :
       {"10.1.1.1", "10.1.1.1/33", "10.1.1.1/", "10.1.1.1/024", "/24", "10.1.1.1/2a"}) {
    EXPECT_FALSE(IpAddrWithMask::tryParse(bad)) << bad;
  }
}

TEST(PrefixTest, ClearsTheHostBits) {
  EXPECT_EQ(Prefix::parse("10.1.1.1/24").stringValue(), "10.1.1.0/24");
  EXPECT_EQ(Prefix::parse("10.1.1.1/32").stringValue(), "10.1.1.1/32");
  EXPECT_EQ(Prefix::parse("10.1.1.1/0").stringValue(), "0.0.0.0/0");
  EXPECT_EQ(Prefix::parse("10.1.1.255/31").stringValue(), "10.1.1.254/31");
  EXPECT_TRUE(Prefix::parse("10.1.0.0/16").contains(IpAddr::parse("10.1.2.3")));
  EXPECT_FALSE(Prefix::parse("10.1.0.0/16").contains(IpAddr::parse("10.2.0.0")));
  EXPECT_TRUE(Prefix().contains(IpAddr::parse("203.0.113.9")));
}

TEST(PrefixTest, AMaskLongerThanTheAddressIsNotAllowed) {
  expectError<Vix::RangeError>([] { Prefix(IpAddrWithMask(IpAddr::parse("10.0.0.1"), 33)); },
                               "Prefix::validAsPrefix != true not allowed");
  expectError<Vix::RangeError>(
      [] { Ip6Prefix(Ip6AddrWithMask(Ip6Addr::parse("2001:db8::1"), 129)); },
      "Prefix::validAsPrefix != true not allowed");
}

TEST(Ip6PrefixTest, ClearsTheHostBitsAtAnyLength) {
  EXPECT_EQ(Ip6Prefix::parse("2001:db8:1:2:3:4:5:6/64").stringValue(), "2001:db8:1:2::/64");
  EXPECT_EQ(Ip6Prefix::parse("2001:db8:ffff::/36").stringValue(), "2001:db8:f000::/36");
  EXPECT_EQ(Ip6Prefix::parse("fe80::1/128").stringValue(), "fe80::1/128");
  EXPECT_EQ(Ip6Prefix::parse("2001:db8::1/0").stringValue(), "::/0");
  const auto p = Ip6Prefix::parse("2001:db8::/32");
  EXPECT_TRUE(p.contains(Ip6Addr::parse("2001:db8:ffff::1")));
  EXPECT_FALSE(p.contains(Ip6Addr::parse("2001:db9::1")));
  EXPECT_FALSE(Ip6Prefix::tryParse("2001:db8::/129"));
}

TEST(IntfIdTest, AcceptsExactlyWhatCanNameALinuxDevice) {
  EXPECT_EQ(IntfId::parse("eth1").stringValue(), "eth1");
  EXPECT_EQ(IntfId::parse("bond0.100").stringValue(), "bond0.100");
  EXPECT_EQ(IntfId::parse("abcdefghijklmno").stringValue().size(), 15u);
  for (const char* bad : {"", ".", "..", "abcdefghijklmnop", "eth 1", "eth/1", "eth:1", "eth\n1",
                          "$(reboot)", "eth1;ls", "-j", "eth'1", "\xc3\xa9th"}) {
    EXPECT_FALSE(IntfId::validName(bad)) << bad;
  }
  expectError<Vix::ParseError>(
      [] { IntfId::parse("a b"); },
      "invalid interface name: 'a b' (1 to 15 letters, digits, '_', '.' or '-', not starting "
      "with '-')");
  EXPECT_TRUE(IntfId().empty());
  EXPECT_NE(IntfId("eth1").hash(), IntfId("eth2").hash());
}

}  // namespace
