#include "daemon/PacketMatcher.h"

#include <algorithm>

#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Waymark {

namespace {

bool addressMatches(const Acl::AddrSpec& want, const Velnet::IpGenAddr& a) {
  if (want.any) return true;
  if (want.addr.family() != a.family()) return false;
  if (a.isV4()) return Velnet::Prefix(want.addr.v4(), want.len).contains(a.v4());
  return Velnet::Ip6Prefix(want.addr.v6(), want.len).contains(a.v6());
}

bool portMatches(const Acl::PortSpec& want, const std::optional<uint16_t>& port) {
  if (want.op == Acl::PortOp::any) return true;
  if (!port) return false;
  switch (want.op) {
    case Acl::PortOp::eq:
      return std::find(want.ports.begin(), want.ports.end(), *port) != want.ports.end();
    case Acl::PortOp::range:
      return *port >= want.ports[0] && *port <= want.ports[1];
    case Acl::PortOp::gt:
      return *port > want.ports[0];
    case Acl::PortOp::lt:
      return *port < want.ports[0];
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
