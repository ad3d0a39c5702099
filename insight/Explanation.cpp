#include "insight/Explanation.h"

#include <cctype>
#include <map>
#include <sstream>

#include "framework/String.h"
#include "plugin/ClassCommonData.h"
#include "policymap/TcpFlag.h"

namespace Waymark {

namespace {

bool setProtocol(const std::string& proto, Packet& p) {
  const std::map<std::string, uint8_t> names = {{"tcp", Acl::Protocol::tcp},
                                                {"udp", Acl::Protocol::udp},
                                                {"icmp", Acl::Protocol::icmp},
                                                {"icmpv6", Acl::Protocol::icmpv6},
                                                {"sctp", Acl::Protocol::sctp}};
  if (names.count(proto) != 0) {
    p.protocol = names.at(proto);
    return true;
  }
  if (proto.empty() || proto.size() > 3 ||
      proto.find_first_not_of("0123456789") != std::string::npos || std::stoi(proto) > 255) {
    return false;
  }
  p.protocol = static_cast<uint8_t>(std::stoi(proto));
  return true;
}

bool setPorts(const nlohmann::json& request, Packet& p, std::string* error) {
  for (const auto& [key, port] :
       {std::make_pair("sport", &p.sport), std::make_pair("dport", &p.dport)}) {
    if (!request.contains(key)) continue;
    const auto& v = request[key];
    if (!v.is_number_integer() || v.get<int64_t>() < 0 || v.get<int64_t>() > 65535) {
      *error = std::string("--") + key + " must be a port from 0 to 65535";
      return false;
    }
    *port = static_cast<uint16_t>(v.get<int64_t>());
  }
  return true;
}

bool setTcpFlags(const nlohmann::json& request, Packet& p, std::string* error) {
  const std::map<std::string, uint8_t> flags = {
      {"fin", Acl::TcpFlag::fin}, {"syn", Acl::TcpFlag::syn}, {"rst", Acl::TcpFlag::rst},
      {"psh", Acl::TcpFlag::psh}, {"ack", Acl::TcpFlag::ack}, {"urg", Acl::TcpFlag::urg}};
  std::string list = request.value("tcpFlags", "");
  for (char& c : list) c = c == ',' ? ' ' : static_cast<char>(std::tolower(c));
  std::istringstream words(list);
  for (std::string flag; words >> flag;) {
    if (flags.count(flag) == 0) {
      *error = "unknown TCP flag " + Vix::quoted(flag) + " (fin, syn, rst, psh, ack, urg)";
      return false;
    }
    p.tcpFlags |= flags.at(flag);
  }
  return true;
}

// The nexthop the class's selector chose, unset when none.
Velnet::IpGenAddr chosenNexthop(const Pbr::AclPlugin& plugin, const std::string& policy,
                                const std::string& className) {
  Velnet::IpGenAddr inUse;
  for (const auto& sm : plugin.pbrAclPluginSm()->policyMapSms()) {
    if (sm->key().name() != policy) continue;
    for (const auto& cls : sm->classes()) {
      if (cls->name() != className) continue;
      const auto data = Vix::ptrCast<Pbr::ClassCommonData>(cls->commonData());
      if (data) inUse = data->nexthopValue();
    }
  }
  return inUse;
}

std::string ruleText(const PacketMatch& match) {
  std::string rule = match.list + " " + match.rule->text();
  if (match.subRuleFlags != 0) {
    rule += " (sub-rule " + Acl::TcpFlag(match.subRuleFlags).names() + ")";
  }
  return rule;
}

}  // namespace

std::optional<Packet> Explanation::packetOf(const nlohmann::json& request, std::string* error) {
  Packet p;
  p.in = request.value("in", "");
  if (!Velnet::IntfId::validName(p.in)) {
    *error = "--in must name an interface";
    return std::nullopt;
  }
  const auto src = Velnet::IpGenAddr::tryParse(request.value("src", ""));
  const auto dst = Velnet::IpGenAddr::tryParse(request.value("dst", ""));
  if (!src || !dst || src->family() != dst->family()) {
    *error = "--src and --dst must be addresses of one family";
    return std::nullopt;
  }
  p.src = *src;
  p.dst = *dst;
  if (!setProtocol(request.value("proto", ""), p)) {
    *error = "--proto must be tcp, udp, icmp, icmpv6, sctp or a number up to 255";
    return std::nullopt;
  }
  if (!setPorts(request, p, error) || !setTcpFlags(request, p, error)) return std::nullopt;
  return p;
}

nlohmann::json Explanation::of(const ConfigModel& applied, const Packet& packet,
                               const Context& context, uint32_t* mark) {
  *mark = 0;
  const PacketMatch match = PacketMatcher::match(applied, packet);
  nlohmann::json out = {
      {"ok", true},
      {"policy", match.policy.empty() ? nlohmann::json() : nlohmann::json(match.policy)},
      {"class", nullptr},
      {"rule", nullptr},
      {"fwmark", nullptr},
      {"table", nullptr},
      {"nexthop", nullptr},
      {"nexthopState", nullptr}};
  if (match.policyClass == nullptr) return out;
  const auto& c = *match.policyClass;
  out["class"] = c.className;
  out["rule"] = ruleText(match);
  out["passthrough"] = c.passthrough;
  const auto& manager = *context.plugin.nexthopTableManager();
  const Velnet::IpGenAddr inUse = chosenNexthop(context.plugin, match.policy, c.className);
  if (!inUse.isUnset() && manager.programmed(inUse)) {
    *mark = manager.fwmark(inUse);
    out["nexthop"] = inUse.stringValue();
    out["fwmark"] = *mark;
    out["table"] = manager.routeTable(inUse);
    out["nexthopState"] = StatusReport::nexthopState(manager, inUse, context.unrecorded);
  } else if (!c.nexthops.empty()) {
    // Without a chosen nexthop, the first of the list says why.
    const auto& first = c.nexthops.front();
    out["nexthopState"] = first.stringValue() + ": " +
                          (context.downByHealth(first)
                               ? std::string("down by its health check")
                               : StatusReport::nexthopState(manager, first, context.unrecorded));
  }
  return out;
}

}  // namespace Waymark
