// Pbr::RoutingRequest: one routing command of the nexthop table manager,
// both as data (what it does, to which numbers, for which nexthop) and as
// the `ip` command line that stands for it. The text is what the trace shows
// and what a shell runs; every other reader (the rtnetlink executor, the
// state journal) works from the data and never reads the text back.
//
// The command lines, in decimal, one blank between the parts:
//   ip [-6 ]route add default via NH table T
//   ip [-6 ]rule add priority P fwmark M lookup T
//   ip [-6 ]rule del priority P
//   ip [-6 ]route del table T
// A delete carries the nexthop's mark and table too, so that whoever
// carries it out can tell the nexthop's own rule from another at P.
#pragma once

#include <cstdint>
#include <string>

#include "net/IpGenAddr.h"

namespace Pbr {

struct RoutingRequest {
  enum class Operation : uint8_t { addRoute, addRule, deleteRule, deleteRoute, text };

  static RoutingRequest addRoute(const Velnet::IpGenAddr& nexthop, uint32_t table);
  static RoutingRequest addRule(const Velnet::IpGenAddr& nexthop, uint32_t priority, uint32_t mark,
                                uint32_t table);
  static RoutingRequest deleteRule(const Velnet::IpGenAddr& nexthop, uint32_t priority,
                                   uint32_t mark, uint32_t table);
  static RoutingRequest deleteRoute(const Velnet::IpGenAddr& nexthop, uint32_t table);
  // A command known only by its text.
  static RoutingRequest ofText(std::string command);

  bool v6() const { return nexthop.isV6(); }

  Operation operation = Operation::text;
  Velnet::IpGenAddr nexthop;
  uint32_t priority = 0;
  uint32_t mark = 0;
  uint32_t table = 0;
  std::string text;
};

}  // namespace Pbr
