#include "kernel/RoutingRequest.h"

namespace Pbr {

namespace {

// "ip " and the family word: "" for IPv4, "-6 " for IPv6.
std::string ip(const Velnet::IpGenAddr& nexthop) { return nexthop.isV6() ? "ip -6 " : "ip "; }

RoutingRequest request(RoutingRequest::Operation operation, const Velnet::IpGenAddr& nexthop,
                       uint32_t priority, uint32_t mark, uint32_t table, std::string text) {
  RoutingRequest r;
  r.operation = operation;
  r.nexthop = nexthop;
  r.priority = priority;
  r.mark = mark;
  r.table = table;
  r.text = std::move(text);
  return r;
}

}  // namespace

RoutingRequest RoutingRequest::addRoute(const Velnet::IpGenAddr& nexthop, uint32_t table) {
  return request(Operation::addRoute, nexthop, 0, 0, table,
                 ip(nexthop) + "route add default via " + nexthop.stringValue() + " table " +
                     std::to_string(table));
}

RoutingRequest RoutingRequest::addRule(const Velnet::IpGenAddr& nexthop, uint32_t priority,
                                       uint32_t mark, uint32_t table) {
  return request(Operation::addRule, nexthop, priority, mark, table,
                 ip(nexthop) + "rule add priority " + std::to_string(priority) + " fwmark " +
                     std::to_string(mark) + " lookup " + std::to_string(table));
}

RoutingRequest RoutingRequest::deleteRule(const Velnet::IpGenAddr& nexthop, uint32_t priority,
                                          uint32_t mark, uint32_t table) {
  return request(Operation::deleteRule, nexthop, priority, mark, table,
                 ip(nexthop) + "rule del priority " + std::to_string(priority));
}

RoutingRequest RoutingRequest::deleteRoute(const Velnet::IpGenAddr& nexthop, uint32_t table) {
  return request(Operation::deleteRoute, nexthop, 0, 0, table,
                 ip(nexthop) + "route del table " + std::to_string(table));
}

RoutingRequest RoutingRequest::ofText(std::string command) {
  RoutingRequest r;
  r.text = std::move(command);
  return r;
}

}  // namespace Pbr
