#include "iptables/SubRuleKey.h"

#include <gtest/gtest.h>

#include "framework/Errors.h"

namespace {

using Pbr::Iptables::SubRuleKey;
using PolicyMap::AclRuleKey;
using PolicyMap::PolicyMapSmKey;

const AclRuleKey kRule(PolicyMapSmKey("edge"), PolicyMap::matchIpv4, "web", "web", 10);

std::string parseError(const std::string& text) {
  try {
    SubRuleKey::fromStrep(text);
  } catch (const Vix::ParseError& e) {
    return e.what();
  }
  return "no error";
}

TEST(SubRuleKeyTest, KeysThatDifferOnlyInTheirFlagsAreDifferentAndSortByFlag) {
  const SubRuleKey rst(kRule, 0x04);
  const SubRuleKey ack(kRule, 0x10);
  EXPECT_NE(rst, ack);
  EXPECT_NE(rst.hash(), ack.hash());
  EXPECT_EQ(rst.hash() ^ ack.hash(), 0x04u ^ 0x10u);
  EXPECT_LT(rst, ack);
  EXPECT_GT(ack, rst);
  EXPECT_LE(rst, rst);
  // The rule key decides first.
  const SubRuleKey earlier(
      AclRuleKey(PolicyMapSmKey("edge"), PolicyMap::matchIpv4, "web", "web", 5), 0x3f);
  EXPECT_LT(earlier, rst);
}

TEST(SubRuleKeyTest, AFlagAboveSixBitsCannotBeStored) {
  try {
    SubRuleKey(kRule, 0x40);
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "TcpFlag::value > 0x3f not allowed");
  }
}

TEST(SubRuleKeyTest, OnlyTheDefaultKeyIsFalse) {
  EXPECT_TRUE(!SubRuleKey());
  EXPECT_FALSE(!SubRuleKey(kRule, 0));
  EXPECT_EQ(SubRuleKey().strep(),
            "Value('Pbr::Iptables::SubRuleKey', ** {'aclRuleKey': Value('PolicyMap::AclRuleKey', "
            "** {'policyMapKey': Value('PolicyMap::PolicyMapSmKey', ** {'name': '', 'instance': "
            "''}), 'matchOption': 0, 'className': '', 'aclName': '', 'seqNo': 0}), 'tcpFlag': 0})");
}

TEST(SubRuleKeyTest, TheTextFormReadsBackToAnEqualKey) {
  const SubRuleKey keys[] = {
      SubRuleKey(),
      SubRuleKey(kRule, 0x12),
      SubRuleKey(AclRuleKey(PolicyMapSmKey("it's", "a\\b\nc"), PolicyMap::matchIpv6, "cl ass",
                            "\x01\xff", 4294967295u),
                 0x3f),
  };
  for (const auto& k : keys) EXPECT_EQ(SubRuleKey::fromStrep(k.strep()), k) << k.strep();
}

TEST(SubRuleKeyTest, UnreadableTextIsRejectedTheFrameworkWay) {
  const std::string text = SubRuleKey(kRule, 2).strep();
  EXPECT_EQ(parseError(text + " x"),
            "junk at column " + std::to_string(text.size() + 1) + " deserializing SubRuleKey");
  EXPECT_EQ(parseError(text.substr(0, text.size() - 2)), "premature end of value type SubRuleKey");
  EXPECT_EQ(parseError("Value('Pbr::Iptables::SubRuleKey', ** {'tcpFlags': 2})"),
            "SubRuleKey has no such attribute: tcpFlags");
  EXPECT_EQ(parseError("Value('Pbr::Iptables::SubRuleKey', ** {'tcpFlag': 64})"),
            "tcpFlag: TcpFlag::value > 0x3f not allowed");
  EXPECT_EQ(parseError("Value('Pbr::Iptables::SubRuleKey', ** {'aclRuleKey': "
                       "Value('PolicyMap::AclRuleKey', ** {'seqNo': 1"),
            "aclRuleKey: premature end of value type AclRuleKey");
  // Found by the key fuzzer: a first digit above a small maximum.
  EXPECT_EQ(parseError("Value('Pbr::Iptables::SubRuleKey', ** {'aclRuleKey': "
                       "Value('PolicyMap::AclRuleKey', ** {'matchOption': 3})})"),
            "aclRuleKey: matchOption: number out of range at column 103 deserializing AclRuleKey");
}

}  // namespace
