#include "daemon/PacketMatcher.h"

#include <algorithm>

#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Waymark {

namespace {

bool addressMatches(const Acl::AddrSpec& spec, const Velnet::IpGenAddr& a) {
  if (spec.any) return true;
  if (spec.addr.family() != a.family()) return false;
  if (a.isV4()) return Velnet::Prefix(spec.addr.v4(), spec.len).contains(a.v4());
  return Velnet::Ip6Prefix(spec.addr.v6(), spec.len).contains(a.v6());
}

bool portMatches(const Acl::PortSpec& spec, const std::optional<uint16_t>& port) {
  if (spec.op == Acl::PortOp::any) return true;
  if (!port) return false;
  switch (spec.op) {
    case Acl::PortOp::eq:
      return std::find(spec.ports.begin(), spec.ports.end(), *port) != spec.ports.end();
    case Acl::PortOp::range:
      return *port >= spec.ports[0] && *port <= spec.ports[1];
    case Acl::PortOp::gt:
      return *port > spec.ports[0];
    case Acl::PortOp::lt:
      return *port < spec.ports[0];
    case Acl::PortOp::any:
      break;
  }
  return true;
}

}  // namespace

bool PacketMatcher::matches(const Acl::AclRuleConfig& rule, uint8_t subRuleFlags,
                            const Packet& packet) {
  if (rule.ipv6 != packet.dst.isV6()) return false;
  if (rule.protocol && *rule.protocol != packet.protocol) return false;
  if (!addressMatches(rule.src, packet.src) || !addressMatches(rule.dst, packet.dst)) return false;
  if (!portMatches(rule.srcPorts, packet.sport) || !portMatches(rule.dstPorts, packet.dport)) {
    return false;
  }
  // "--tcp-flags F F": every flag of the sub-rule is set, whatever the rest.
  return (packet.tcpFlags & subRuleFlags) == subRuleFlags;
}

PacketMatch PacketMatcher::match(const ConfigModel& model, const Packet& packet) {
  PacketMatch out;
  const auto applied = model.interfaces.find(Velnet::IntfId(packet.in));
  if (applied == model.interfaces.end()) return out;
  out.policy = applied->second;
  const auto* classes = model.policyMap(out.policy);
  if (classes == nullptr) return out;
  for (const auto& c : *classes) {
    const auto lists = model.classMaps.find(c.className);
    if (lists == model.classMaps.end()) continue;
    for (const auto& listName : lists->second) {
      const auto list = model.accessLists.find(listName);
      if (list == model.accessLists.end()) continue;
      for (const auto& [seq, rule] : list->second.rules) {
        for (const auto& flags : rule.subRuleFlags()) {
          if (!matches(rule, flags.value(), packet)) continue;
          out.policyClass = &c;
          out.list = listName;
          out.rule = &rule;
          out.subRuleFlags = flags.value();
          return out;
        }
      }
    }
  }
  return out;
}

}  // namespace Waymark
