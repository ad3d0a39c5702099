#include "policymap/AclRuleConfig.h"

#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Acl {

std::string Protocol::name(uint8_t protocol) {
  switch (protocol) {
    case icmp:
      return "icmp";
    case tcp:
      return "tcp";
    case udp:
      return "udp";
    case icmpv6:
      return "icmpv6";
    case sctp:
      return "sctp";
    default:
      return std::to_string(protocol);
  }
}

std::string PortSpec::text() const {
  switch (op) {
    case PortOp::any:
      return "";
    case PortOp::eq: {
      std::string out = "eq";
      for (const uint16_t p : ports) out += " " + std::to_string(p);
      return out;
    }
    case PortOp::range:
      return "range " + std::to_string(ports[0]) + " " + std::to_string(ports[1]);
    case PortOp::gt:
      return "gt " + std::to_string(ports[0]);
    case PortOp::lt:
      return "lt " + std::to_string(ports[0]);
  }
  return "";
}

std::string AddrSpec::prefixText() const { return addr.stringValue() + "/" + std::to_string(len); }

std::vector<std::pair<uint32_t, uint32_t>> PortSpec::intervals() const {
  switch (op) {
    case PortOp::eq: {
      std::vector<std::pair<uint32_t, uint32_t>> out;
      for (const uint16_t p : ports) out.emplace_back(p, p);
      return out;
    }
    case PortOp::range:
      return {{ports[0], ports[1]}};
    case PortOp::gt:
      return {{ports[0] + 1u, 65535u}};
    case PortOp::lt:
      if (ports[0] == 0) return {};
      return {{0u, ports[0] - 1u}};
    case PortOp::any:
      break;
  }
  return {{0u, 65535u}};
}

bool AddrSpec::contains(const Velnet::IpGenAddr& a) const {
  if (any) return true;
  if (addr.family() != a.family()) return false;
  if (a.isV4()) return Velnet::Prefix(addr.v4(), len).contains(a.v4());
  return Velnet::Ip6Prefix(addr.v6(), len).contains(a.v6());
}

std::string AddrSpec::text() const {
  if (any) return "any";
  const int full = addr.isV6() ? 128 : 32;
  return len == full ? "host " + addr.stringValue() : prefixText();
}

std::vector<TcpFlag> AclRuleConfig::subRuleFlags() const {
  if (established) return {TcpFlag(TcpFlag::rst), TcpFlag(TcpFlag::ack)};
  return {flags};
}

std::string AclRuleConfig::text() const {
  // An unnumbered rule (0) is written without a number: "0" is not one the
  // grammar takes back.
  std::string out = seqNo == 0 ? "permit " : std::to_string(seqNo) + " permit ";
  out += protocol ? Protocol::name(*protocol) : (ipv6 ? "ipv6" : "ip");
  out += " " + src.text();
  if (srcPorts.op != PortOp::any) out += " " + srcPorts.text();
  out += " " + dst.text();
  if (dstPorts.op != PortOp::any) out += " " + dstPorts.text();
  if (established) {
    out += " established";
  } else if (!flags.empty()) {
    std::string names = flags.names();
    for (char& c : names) c = c == ',' ? ' ' : static_cast<char>(c - 'A' + 'a');
    out += " " + names;
  }
  return out;
}

}  // namespace Acl
