#include "policymap/AclRuleParser.h"

#include <optional>
#include <string>
#include <vector>

#include "framework/Errors.h"
#include "framework/String.h"
#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Acl {

namespace {

constexpr size_t kMaxMultiport = 15;

class Words {
 public:
  Words(std::string_view text, bool ipv6) : ipv6_(ipv6) {
    size_t i = 0;
    while (i < text.size()) {
      while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
      const size_t start = i;
      while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
      if (i > start) words_.emplace_back(text.substr(start, i - start));
    }
  }

  bool done() const { return next_ >= words_.size(); }
  const std::string& peek() const { return words_[next_]; }
  std::string take(const char* what) {
    if (done()) fail("missing " + std::string(what));
    return words_[next_++];
  }
  bool takeIf(std::string_view word) {
    if (done() || peek() != word) return false;
    ++next_;
    return true;
  }
  bool ipv6() const { return ipv6_; }
  [[noreturn]] void fail(const std::string& why) const { throw Vix::ParseError(why); }

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
  bool ipv6_;
};

std::optional<uint64_t> number(std::string_view word, uint64_t max) {
  if (word.empty() || word.size() > 10) return std::nullopt;
  uint64_t n = 0;
  for (const char c : word) {
    if (c < '0' || c > '9') return std::nullopt;
    n = n * 10 + static_cast<uint64_t>(c - '0');
  }
  if (n > max) return std::nullopt;
  return n;
}

bool isNumber(std::string_view word) { return number(word, ~uint64_t{0}).has_value(); }

uint16_t port(Words& w) {
  const std::string word = w.take("port number");
  const auto n = number(word, 65535);
  if (!n) w.fail("invalid port " + Vix::quoted(word) + " (0 to 65535)");
  return static_cast<uint16_t>(*n);
}

[[noreturn]] void wrongFamily(const Words& w, const std::string& word) {
  w.fail("protocol " + Vix::quoted(word) + " in an " + (w.ipv6() ? "IPv6" : "IPv4") +
         " access list");
}

std::optional<uint8_t> protocol(Words& w) {
  const std::string word = w.take("protocol");
  if (word == "ip" || word == "ipv6") {
    if ((word == "ipv6") != w.ipv6()) wrongFamily(w, word);
    return std::nullopt;
  }
  if (word == "tcp") return Protocol::tcp;
  if (word == "udp") return Protocol::udp;
  if (word == "sctp") return Protocol::sctp;
  if (word == "icmp" || word == "icmpv6") {
    if ((word == "icmpv6") != w.ipv6()) wrongFamily(w, word);
    return word == "icmp" ? Protocol::icmp : Protocol::icmpv6;
  }
  const auto n = number(word, 255);
  if (!n) w.fail("unknown protocol " + Vix::quoted(word));
  // iptables reads "-p 0" as every protocol: "permit 0 any any" would
  // quietly match everything.
  if (*n == 0) w.fail("protocol 0 (iptables takes it for every protocol; say ip or ipv6)");
  // By number as by name: ICMP belongs in IPv4 lists and ICMPv6 in IPv6 ones
  // (the rule's text names them, and must read back).
  const auto p = static_cast<uint8_t>(*n);
  if ((p == Protocol::icmp && w.ipv6()) || (p == Protocol::icmpv6 && !w.ipv6())) {
    wrongFamily(w, word);
  }
  return p;
}

AddrSpec address(Words& w, const char* what) {
  const std::string word = w.take(what);
  if (word == "any") return AddrSpec{};
  const bool host = word == "host";
  const std::string text = host ? w.take("host address") : word;
  const std::string family = w.ipv6() ? "IPv6" : "IPv4";
  if (!host && text.find('/') == std::string::npos) {
    w.fail("invalid " + std::string(what) + " " + Vix::quoted(text) +
           " (any, host ADDR or ADDR/LEN)");
  }
  const auto addr = Velnet::IpGenAddr::tryParse(host ? text : text.substr(0, text.find('/')));
  if (!addr) w.fail("invalid " + family + " address " + Vix::quoted(text));
  if (addr->isV6() != w.ipv6()) {
    w.fail((addr->isV6() ? "IPv6" : "IPv4") + std::string(" address ") + Vix::quoted(text) +
           " in an " + family + " access list");
  }
  const int full = w.ipv6() ? 128 : 32;
  AddrSpec entry{false, *addr, static_cast<uint8_t>(full)};
  if (host) return entry;
  const auto len = number(text.substr(text.find('/') + 1), static_cast<uint64_t>(full));
  if (!len)
    w.fail("invalid prefix length in " + Vix::quoted(text) + " (0 to " + std::to_string(full) +
           ")");
  entry.len = static_cast<uint8_t>(*len);
  // Host bits are cleared, as iptables itself would.
  entry.addr = w.ipv6() ? Velnet::IpGenAddr(Velnet::Ip6Prefix(addr->v6(), *len).network())
                        : Velnet::IpGenAddr(Velnet::Prefix(addr->v4(), *len).network());
  return entry;
}

PortSpec ports(Words& w, const std::optional<uint8_t>& proto) {
  if (w.done()) return {};
  const std::string op = w.peek();
  if (op != "eq" && op != "range" && op != "gt" && op != "lt") return {};
  if (!proto || !Protocol::hasPorts(*proto)) {
    w.fail("ports (" + Vix::quoted(op) + ") are only allowed with tcp, udp or sctp");
  }
  w.take("port operator");
  PortSpec entry;
  if (op == "eq") {
    entry.op = PortOp::eq;
    entry.ports.push_back(port(w));
    while (!w.done() && isNumber(w.peek())) entry.ports.push_back(port(w));
    if (entry.ports.size() > kMaxMultiport) {
      w.fail("at most " + std::to_string(kMaxMultiport) + " ports after eq, not " +
             std::to_string(entry.ports.size()));
    }
  } else if (op == "range") {
    entry.op = PortOp::range;
    entry.ports = {port(w), port(w)};
    if (entry.ports[0] > entry.ports[1]) {
      w.fail("empty port range " + std::to_string(entry.ports[0]) + " " +
             std::to_string(entry.ports[1]));
    }
  } else {
    entry.op = op == "gt" ? PortOp::gt : PortOp::lt;
    entry.ports = {port(w)};
    if ((op == "gt" && entry.ports[0] == 65535) || (op == "lt" && entry.ports[0] == 0)) {
      w.fail("no port is " + op + " " + std::to_string(entry.ports[0]));
    }
  }
  return entry;
}

void flags(Words& w, AclRuleConfig& rule) {
  static constexpr std::pair<const char*, uint8_t> kFlags[] = {
      {"fin", TcpFlag::fin}, {"syn", TcpFlag::syn}, {"rst", TcpFlag::rst},
      {"psh", TcpFlag::psh}, {"ack", TcpFlag::ack}, {"urg", TcpFlag::urg}};
  uint32_t set = 0;
  while (!w.done()) {
    const std::string word = w.take("flag");
    if (!rule.protocol || *rule.protocol != Protocol::tcp) {
      w.fail("unexpected " + Vix::quoted(word) + " (TCP flags are only allowed with tcp)");
    }
    if (word == "established") {
      rule.established = true;
      continue;
    }
    bool known = false;
    for (const auto& [name, bit] : kFlags) {
      if (word == name) {
        set |= bit;
        known = true;
      }
    }
    if (!known) w.fail("unknown TCP flag " + Vix::quoted(word));
  }
  if (rule.established && set != 0) w.fail("established cannot be combined with flag names");
  rule.flags = TcpFlag(set);
}

}  // namespace

AclRuleConfig AclRuleParser::parse(std::string_view text, bool ipv6) {
  Words w(text, ipv6);
  AclRuleConfig rule;
  rule.ipv6 = ipv6;
  if (!w.done() && isNumber(w.peek())) {
    const std::string word = w.take("sequence number");
    const auto seq = number(word, 0xffffffffu);
    if (!seq || *seq == 0) w.fail("invalid sequence number " + Vix::quoted(word));
    rule.seqNo = static_cast<uint32_t>(*seq);
  }
  const std::string action = w.take("'permit'");
  if (action == "deny") {
    w.fail("deny rules are not supported: a policy's classes only select traffic to steer");
  }
  if (action != "permit") w.fail("expected 'permit', not " + Vix::quoted(action));
  rule.protocol = protocol(w);
  rule.src = address(w, "source");
  rule.srcPorts = ports(w, rule.protocol);
  rule.dst = address(w, "destination");
  rule.dstPorts = ports(w, rule.protocol);
  flags(w, rule);
  return rule;
}

}  // namespace Acl
