#include "kernel/KernelRouting.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Kernel {

namespace {

uint8_t family(bool v6) { return v6 ? AF_INET6 : AF_INET; }

// The byte-wide table field of a message: tables above 255 travel only in
// the 32-bit attribute.
uint8_t shortTable(uint32_t table) {
  return table < 256 ? static_cast<uint8_t>(table) : uint8_t{RT_TABLE_UNSPEC};
}

template <typename Header>
std::map<uint16_t, const rtattr*> attributes(const nlmsghdr& m) {
  std::map<uint16_t, const rtattr*> out;
  const auto* body = static_cast<const Header*>(NLMSG_DATA(&m));
  int length = static_cast<int>(m.nlmsg_len) - static_cast<int>(NLMSG_LENGTH(sizeof(Header)));
  for (auto* a = reinterpret_cast<const rtattr*>(reinterpret_cast<const char*>(body) +
                                                 NLMSG_ALIGN(sizeof(Header)));
       RTA_OK(a, length); a = RTA_NEXT(a, length)) {
    out[a->rta_type] = a;
  }
  return out;
}

uint32_t u32(const std::map<uint16_t, const rtattr*>& attrs, uint16_t type, uint32_t otherwise) {
  const auto it = attrs.find(type);
  if (it == attrs.end()) return otherwise;
  uint32_t v = 0;
  std::memcpy(&v, RTA_DATA(it->second), sizeof v);
  return v;
}

}  // namespace

int KernelRouting::addRoute(const Velnet::IpGenAddr& via, uint32_t table) {
  return newRoute(NLM_F_CREATE | NLM_F_EXCL, via, table);
}

int KernelRouting::replaceRoute(const Velnet::IpGenAddr& via, uint32_t table) {
  return newRoute(NLM_F_CREATE | NLM_F_REPLACE, via, table);
}

int KernelRouting::newRoute(uint16_t flags, const Velnet::IpGenAddr& via, uint32_t table) {
  RtnetlinkMessage m(RTM_NEWROUTE, flags, sizeof(rtmsg));
  auto* r = m.body<rtmsg>();
  r->rtm_family = family(via.isV6());
  r->rtm_table = shortTable(table);
  r->rtm_protocol = RTPROT_BOOT;
  r->rtm_scope = RT_SCOPE_UNIVERSE;
  r->rtm_type = RTN_UNICAST;
  m.addU32(RTA_TABLE, table);
  if (via.isV6()) {
    m.add(RTA_GATEWAY, via.v6().bytes().data(), 16);
  } else {
    const uint32_t be = htonl(via.v4().value());
    m.add(RTA_GATEWAY, &be, 4);
  }
  return socket_.request(m.header());
}

int KernelRouting::addRule(const PolicyRule& rule) {
  return changeRule(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule);
}

int KernelRouting::deleteRule(const PolicyRule& rule) { return changeRule(RTM_DELRULE, 0, rule); }

int KernelRouting::changeRule(uint16_t type, uint16_t flags, const PolicyRule& rule) {
  RtnetlinkMessage m(type, flags, sizeof(fib_rule_hdr));
  auto* h = m.body<fib_rule_hdr>();
  h->family = family(rule.v6);
  h->action = FR_ACT_TO_TBL;
  h->table = shortTable(rule.table);
  m.addU32(FRA_PRIORITY, rule.priority);
  if (rule.mark != 0) m.addU32(FRA_FWMARK, rule.mark);
  m.addU32(FRA_TABLE, rule.table);
  return socket_.request(m.header());
}

std::vector<PolicyRule> KernelRouting::rules(bool v6) {
  RtnetlinkMessage m(RTM_GETRULE, 0, sizeof(fib_rule_hdr));
  m.body<fib_rule_hdr>()->family = family(v6);
  std::vector<PolicyRule> out;
  socket_.dump(m.header(), [&](const nlmsghdr& reply) {
    if (reply.nlmsg_type != RTM_NEWRULE) return;
    const auto* h = static_cast<const fib_rule_hdr*>(NLMSG_DATA(&reply));
    const auto attrs = attributes<fib_rule_hdr>(reply);
    out.push_back({v6, u32(attrs, FRA_PRIORITY, 0), u32(attrs, FRA_FWMARK, 0),
                   u32(attrs, FRA_TABLE, h->table)});
  });
  return out;
}

bool KernelRouting::hasRule(const PolicyRule& rule) {
  const auto all = rules(rule.v6);
  return std::find(all.begin(), all.end(), rule) != all.end();
}

bool KernelRouting::hasRoutes(const RouteTableId& table) {
  int result = 0;
  return !routes(table.v6, table.table, &result).empty() || result != 0;
}

std::vector<std::vector<char>> KernelRouting::routes(bool v6, uint32_t table, int* result) {
  RtnetlinkMessage m(RTM_GETROUTE, 0, sizeof(rtmsg));
  m.body<rtmsg>()->rtm_family = family(v6);
  // The socket checks dumps strictly, so the kernel sends only this table.
  if (table != 0) {
    m.body<rtmsg>()->rtm_table = shortTable(table);
    m.addU32(RTA_TABLE, table);
  }
  std::vector<std::vector<char>> out;
  *result = socket_.dump(m.header(), [&](const nlmsghdr& reply) {
    if (reply.nlmsg_type != RTM_NEWROUTE) return;
    const auto* r = static_cast<const rtmsg*>(NLMSG_DATA(&reply));
    // Routes the kernel made for its own use (clones, caches) are not
    // entries of a table.
    if ((r->rtm_flags & RTM_F_CLONED) != 0) return;
    const uint32_t t = u32(attributes<rtmsg>(reply), RTA_TABLE, r->rtm_table);
    if (table != 0 && t != table) return;
    const char* begin = reinterpret_cast<const char*>(&reply);
    out.emplace_back(begin, begin + reply.nlmsg_len);
  });
  return out;
}

std::map<uint32_t, uint32_t> KernelRouting::routeTables(bool v6) {
  std::map<uint32_t, uint32_t> out;
  int result = 0;
  for (const auto& route : routes(v6, 0, &result)) {
    const auto& m = *reinterpret_cast<const nlmsghdr*>(route.data());
    ++out[u32(attributes<rtmsg>(m), RTA_TABLE,
              static_cast<const rtmsg*>(NLMSG_DATA(&m))->rtm_table)];
  }
  return out;
}

namespace {

// The gateway of a default route, or unset.
Velnet::IpGenAddr defaultGateway(const nlmsghdr& m, bool v6) {
  if (static_cast<const rtmsg*>(NLMSG_DATA(&m))->rtm_dst_len != 0) return {};
  const auto attrs = attributes<rtmsg>(m);
  const auto gateway = attrs.find(RTA_GATEWAY);
  if (gateway == attrs.end() || RTA_PAYLOAD(gateway->second) != (v6 ? 16u : 4u)) return {};
  char text[INET6_ADDRSTRLEN] = {};
  if (inet_ntop(family(v6), RTA_DATA(gateway->second), text, sizeof text) == nullptr) return {};
  return Velnet::IpGenAddr::tryParse(text).value_or(Velnet::IpGenAddr());
}

}  // namespace

std::map<uint32_t, Velnet::IpGenAddr> KernelRouting::soleDefaultGateways(bool v6) {
  std::map<uint32_t, std::pair<uint32_t, Velnet::IpGenAddr>> seen;  // routes, gateway
  int result = 0;
  for (const auto& route : routes(v6, 0, &result)) {
    const auto& m = *reinterpret_cast<const nlmsghdr*>(route.data());
    auto& [count, gateway] = seen[u32(attributes<rtmsg>(m), RTA_TABLE,
                                      static_cast<const rtmsg*>(NLMSG_DATA(&m))->rtm_table)];
    if (++count == 1) gateway = defaultGateway(m, v6);
  }
  std::map<uint32_t, Velnet::IpGenAddr> out;
  for (const auto& [table, held] : seen) {
    if (held.first == 1 && !held.second.isUnset()) out.emplace(table, held.second);
  }
  return out;
}

int KernelRouting::flushTable(bool v6, uint32_t table) {
  int removed = 0;
  int result = 0;
  auto found = routes(v6, table, &result);
  if (result != 0) return result;
  // Each route goes back to the kernel as it came, as a delete: the kernel
  // then finds exactly that route, whatever its attributes.
  for (auto& route : found) {
    auto* m = reinterpret_cast<nlmsghdr*>(route.data());
    m->nlmsg_type = RTM_DELROUTE;
    m->nlmsg_flags = NLM_F_REQUEST;
    const int deleted = socket_.request(m);
    if (deleted == 0) ++removed;
    if (deleted != 0 && deleted != -ESRCH) return deleted;
  }
  return removed;
}

}  // namespace Kernel
