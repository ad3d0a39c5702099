#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <set>
#include <vector>

#include "net/Routing6Trie.h"
#include "net/RoutingTrie.h"

namespace {

using Velnet::Ip6Prefix;
using Velnet::Prefix;

std::optional<Prefix> match(const Routing::Trie& t, const char* addr) {
  return t.longestMatch(Prefix::parse(std::string(addr) + "/32"));
}

TEST(RoutingTrieTest, FindsTheMostSpecificOfNestedPrefixes) {
  Routing::Trie t("PBRL3IntfTrie");
  for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"})
    t.routeIs(Prefix::parse(p), true);
  EXPECT_EQ(match(t, "10.1.2.3"), Prefix::parse("10.1.2.0/24"));
  EXPECT_EQ(match(t, "10.1.3.3"), Prefix::parse("10.1.0.0/16"));
  EXPECT_EQ(match(t, "10.2.0.1"), Prefix::parse("10.0.0.0/8"));
  EXPECT_EQ(match(t, "11.0.0.1"), std::nullopt);
  t.routeDel(Prefix::parse("10.1.0.0/16"));
  EXPECT_EQ(match(t, "10.1.3.3"), Prefix::parse("10.0.0.0/8"));
  EXPECT_EQ(match(t, "10.1.2.3"), Prefix::parse("10.1.2.0/24"));
  EXPECT_EQ(t.name(), "PBRL3IntfTrie");
}

TEST(RoutingTrieTest, AHostPrefixCoversOnlyItsOwnAddress) {
  Routing::Trie t("PBRL3IntfTrie");
  t.routeIs(Prefix::parse("192.0.2.7/32"), true);
  EXPECT_EQ(match(t, "192.0.2.7"), Prefix::parse("192.0.2.7/32"));
  EXPECT_EQ(match(t, "192.0.2.6"), std::nullopt);
  EXPECT_EQ(match(t, "192.0.2.8"), std::nullopt);
}

TEST(RoutingTrieTest, TheDefaultPrefixCoversEverything) {
  Routing::Trie t("PBRL3IntfTrie");
  t.routeIs(Prefix::parse("0.0.0.0/0"), true);
  t.routeIs(Prefix::parse("198.51.100.0/24"), true);
  EXPECT_EQ(match(t, "203.0.113.1"), Prefix::parse("0.0.0.0/0"));
  EXPECT_EQ(match(t, "198.51.100.1"), Prefix::parse("198.51.100.0/24"));
  t.routeDel(Prefix::parse("0.0.0.0/0"));
  EXPECT_EQ(match(t, "203.0.113.1"), std::nullopt);
}

TEST(RoutingTrieTest, DeletingAnAbsentPrefixChangesNothing) {
  Routing::Trie t("PBRL3IntfTrie");
  t.routeIs(Prefix::parse("10.1.0.0/16"), true);
  t.routeDel(Prefix::parse("10.0.0.0/8"));
  t.routeDel(Prefix::parse("10.1.0.0/24"));
  EXPECT_EQ(t.routes(), 1u);
  EXPECT_EQ(match(t, "10.1.9.9"), Prefix::parse("10.1.0.0/16"));
}

TEST(Routing6TrieTest, FindsNestedLinkLocalAndHostPrefixes) {
  Routing6::Trie t("PBRL3IntfTrie6");
  for (const char* p : {"2001:db8::/32", "2001:db8:1::/48", "fe80::/64", "2001:db8:2::5/128"}) {
    t.routeIs(Ip6Prefix::parse(p), true);
  }
  auto m = [&](const char* a) { return t.longestMatch(Ip6Prefix::parse(std::string(a) + "/128")); };
  EXPECT_EQ(m("2001:db8:1::9"), Ip6Prefix::parse("2001:db8:1::/48"));
  EXPECT_EQ(m("2001:db8:2::5"), Ip6Prefix::parse("2001:db8:2::5/128"));
  EXPECT_EQ(m("2001:db8:2::6"), Ip6Prefix::parse("2001:db8::/32"));
  EXPECT_EQ(m("fe80::1"), Ip6Prefix::parse("fe80::/64"));
  EXPECT_EQ(m("fe80:0:0:1::1"), std::nullopt);
  t.routeIs(Ip6Prefix::parse("::/0"), true);
  EXPECT_EQ(m("fe80:0:0:1::1"), Ip6Prefix::parse("::/0"));
}

// Against a brute-force scan of every stored prefix, over random inserts and
// deletes that make the trie split and merge its paths.
TEST(RoutingTrieTest, AgreesWithABruteForceScanOverRandomChurn) {
  for (uint32_t trial = 0; trial < 20; ++trial) {
    std::mt19937 rng(trial);
    Routing::Trie t("PBRL3IntfTrie");
    std::set<Prefix> stored;
    auto randomPrefix = [&] {
      // Few distinct high bytes, so prefixes nest and share paths.
      const uint32_t a = ((rng() % 4) << 30) | (rng() & 0x3fffffff);
      return Prefix(Velnet::IpAddr(a), static_cast<int>(rng() % 33));
    };
    for (int step = 0; step < 2000; ++step) {
      const Prefix p = randomPrefix();
      if (rng() % 3 == 0 && !stored.empty()) {
        auto it = stored.begin();
        std::advance(it, rng() % stored.size());
        t.routeDel(*it);
        stored.erase(it);
      } else {
        t.routeIs(p, true);
        stored.insert(p);
      }
      const Velnet::IpAddr probe(((rng() % 4) << 30) | (rng() & 0x3fffffff));
      std::optional<Prefix> expected;
      for (const Prefix& s : stored) {
        if (s.contains(probe) && (!expected || s.maskLen() > expected->maskLen())) expected = s;
      }
      ASSERT_EQ(t.longestMatch(Prefix(probe, 32)), expected) << "trial " << trial;
    }
    ASSERT_EQ(t.routes(), stored.size());
  }
}

}  // namespace
