#include "insight/PacketMatcher.h"

namespace Waymark {

namespace {

bool portMatches(const Acl::PortSpec& want, const std::optional<uint16_t>& port) {
  if (want.op == Acl::PortOp::any) return true;
  if (!port) return false;
  for (const auto& [lo, hi] : want.intervals()) {
    if (*port >= lo && *port <= hi) return true;
  }
  return false;
}

}  // namespace

bool PacketMatcher::matches(const Acl::AclRuleConfig& rule, uint8_t subRuleFlags,
                            const Packet& packet) {
  if (rule.ipv6 != packet.dst.isV6()) return false;
  if (rule.protocol && *rule.protocol != packet.protocol) return false;
  if (!rule.src.contains(packet.src) || !rule.dst.contains(packet.dst)) return false;
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
