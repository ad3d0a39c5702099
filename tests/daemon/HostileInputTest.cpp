// Hostile configuration files: each is refused with an error that names the
// place and the offending value, and nothing of it is applied; whatever a
// file that loads says reaches iptables and `ip` only as safe text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "tests/plugin/PbrSystemTest.h"
#include "tests/support/KernelText.h"
#include "tests/support/KernelTextHarness.h"

namespace waymark::test {
namespace {

struct Hostile {
  std::string what;
  std::string text;
  std::string error;  // the start of the message after "f:LINE:COL: "
};

// One policy around the hostile part, so that every section is reached.
std::string file(const std::string& list, const std::string& rule, const std::string& cls,
                 const std::string& policy, const std::string& intf) {
  return "access-lists:\n  " + list + ": [" + rule + "]\nclass-maps:\n  " + cls + ": [" + list +
         "]\npolicy-maps:\n  " + policy + ":\n    - class: " + cls +
         "\n      nexthops: [192.0.2.1]\ninterfaces:\n  " + intf + ": " + policy + "\n";
}
std::string withList(const std::string& name) {
  return file(name, "permit tcp any any eq 80", "c", "p", "eth0");
}
std::string withRule(const std::string& rule) { return file("l", rule, "c", "p", "eth0"); }
std::string withIntf(const std::string& intf) {
  return file("l", "permit tcp any any eq 80", "c", "p", intf);
}

const std::vector<Hostile> kHostile = {
    {"a space in a name", withList("'web list'"), "invalid access-list name 'web list'"},
    {"a newline in a name", withList("\"web\\nlist\""), "invalid access-list name 'web\\nlist'"},
    {"a quote in a name", withList("\"we'b\""), "invalid access-list name 'we\\'b'"},
    {"a semicolon in a name", withList("'web;reboot'"), "invalid access-list name 'web;reboot'"},
    {"a command substitution", withList("'$(reboot)'"), "invalid access-list name '$(reboot)'"},
    {"a leading dash in a policy", file("l", "permit ip any any", "c", "'-j'", "eth0"),
     "invalid policy name '-j'"},
    {"an over-long class name", file("l", "permit ip any any", std::string(65, 'c'), "p", "eth0"),
     "invalid class name"},
    {"non-UTF-8 bytes", withList("\"w\\xffb\""), "invalid access-list name"},
    {"raw non-UTF-8 bytes", withList("w\xff\xfe"), "invalid leading UTF-8 octet (0xff)"},
    // Refused at the limit, before the parser slows down with every level.
    {"lists nested 200,000 deep", "a: " + std::string(200000, '[') + std::string(200000, ']'),
     "nesting deeper than 64 levels"},
    {"a duplicate key", "class-maps: {}\nclass-maps: {}\n", "duplicate key 'class-maps'"},
    {"an unknown key", "tunables:\n  rules-per-call: 3\n", "unknown key 'rules-per-call'"},
    {"a port above 65535", withRule("permit tcp any any eq 65536"), "invalid port '65536'"},
    {"an unknown TCP flag", withRule("permit tcp any any syn bogus"), "unknown TCP flag 'bogus'"},
    {"an IPv4 prefix longer than 32", withRule("permit ip 192.0.2.0/33 any"),
     "invalid prefix length in '192.0.2.0/33' (0 to 32)"},
    {"an IPv6 prefix longer than 128",
     "access-lists:\n  l6:\n    ipv6: true\n    rules: [permit ipv6 2001:db8::/129 any]\n",
     "invalid prefix length in '2001:db8::/129' (0 to 128)"},
    {"an IPv6 rule in an IPv4 list", withRule("permit ip 2001:db8::/32 any"),
     "IPv6 address '2001:db8::/32' in an IPv4 access list"},
    {"an interface name of 16 bytes", withIntf("abcdefghijklmnop"),
     "invalid interface name 'abcdefghijklmnop'"},
    {"an interface name with a semicolon", withIntf("'eth0;reboot'"),
     "invalid interface name 'eth0;reboot'"},
    {"an interface name that is an option", withIntf("'-j'"), "invalid interface name '-j'"},
    {"a nexthop that is not an address",
     "access-lists: {l: [permit ip any any]}\nclass-maps: {c: [l]}\npolicy-maps:\n  p:\n    - "
     "class: c\n      nexthops: ['192.0.2.1; reboot']\n",
     "invalid nexthop address '192.0.2.1; reboot'"},
};

std::string errorOf(const std::string& text) {
  try {
    Waymark::ConfigLoader::loadString(text, "f");
  } catch (const Waymark::ConfigError& e) {
    return e.what();
  }
  return "loaded";
}

TEST(HostileInputTest, EveryHostileFileIsRefusedWithItsPlaceAndValue) {
  for (const auto& h : kHostile) {
    const std::string error = errorOf(h.text);
    ASSERT_NE(error, "loaded") << h.what;
    EXPECT_EQ(error.rfind("f:", 0), 0u) << h.what << ": " << error;
    const size_t message = error.find(": ");
    ASSERT_NE(message, std::string::npos) << h.what << ": " << error;
    EXPECT_EQ(error.substr(message + 2, h.error.size()), h.error) << h.what << ": " << error;
  }
}

// A refused reload changes nothing: the file is read whole before anything
// is applied, so the plug-in sees no change at all.
class HostileReload : public PbrSystemTest {
 protected:
  HostileReload() {
    address("eth0", "192.0.2.254/24");
    applier.apply(Waymark::ConfigLoader::loadString(withIntf("eth0"), "f"));
    start();
    settle();
    writer.batches.clear();
    runner.take();
  }
  Waymark::ConfigApplier applier{pbrConfig, aclConfig};
};

TEST_F(HostileReload, ARefusedFileChangesNothing) {
  for (const auto& h : kHostile) {
    try {
      applier.apply(Waymark::ConfigLoader::loadString(h.text, "f"));
    } catch (const Waymark::ConfigError&) {
    }
    settle();
  }
  EXPECT_TRUE(writer.batches.empty());
  EXPECT_TRUE(runner.commands.empty());
}

// The names and values the grammar allows at their edges, all of them on
// their way to the kernel.
TEST(HostileInputTest, WhatAFileMaySayReachesTheKernelOnlyAsSafeText) {
  const std::string longName(64, 'n');
  const std::string text = "access-lists:\n  " + longName +
                           ": [permit tcp 0.0.0.0/0 eq 0 65535 192.0.2.0/32 range 1 65535 fin syn "
                           "rst psh ack urg, permit udp any lt 1 any gt 65534, permit 255 any any, "
                           "permit tcp any any established]\n"
                           "  '.:-x':\n    ipv6: true\n    rules: [permit icmpv6 ::/0 any, "
                           "permit tcp 2001:db8::/128 any eq 80 443 8080]\n"
                           "class-maps:\n  '_c.1:-': [" +
                           longName +
                           ", '.:-x']\n"
                           "policy-maps:\n  " +
                           longName +
                           ":\n    - class: '_c.1:-'\n      nexthops: [192.0.2.1, "
                           "'2001:db8::1']\n"
                           "  ':p-':\n    - class: '_c.1:-'\n      passthrough: true\n"
                           "interfaces:\n  a.b-c_d.123456: " +
                           longName + "\n  x: ':p-'\n";
  const KernelTexts texts = kernelTextsOf(text);
  ASSERT_FALSE(texts.lines.empty());
  ASSERT_FALSE(texts.commands.empty());
  for (const auto& l : texts.lines) EXPECT_EQ(unsafeKernelText(l), "") << l;
  for (const auto& c : texts.commands) EXPECT_EQ(unsafeKernelText(c), "") << c;
}

TEST(HostileInputTest, TheSafeTextCheckCatchesWhatItIsFor) {
  EXPECT_EQ(unsafeKernelText("-A PBR_x -i eth0 -p tcp -m tcp --dport 80 -j MARK --set-mark 0x4"),
            "");
  EXPECT_NE(unsafeKernelText("-A PBR_x -i eth0;reboot -j ACCEPT"), "");
  EXPECT_NE(unsafeKernelText("-A PBR_x -i $(reboot) -j ACCEPT"), "");
  EXPECT_NE(unsafeKernelText("-A PBR_x -i -j ACCEPT"), "");
  EXPECT_NE(unsafeKernelText("-N\tPBR_x"), "");
  EXPECT_NE(unsafeKernelText("ip rule add priority 1 fwmark 2 lookup 3\nip rule flush"), "");
}

}  // namespace
}  // namespace waymark::test
