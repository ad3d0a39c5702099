// Waymark::ConfigModel: the configuration file as plain, fully validated
// values: tunables, access lists, class maps, policy maps, the policy each
// interface applies and the nexthops' health checks. The loader produces it; the applier turns the
// difference between two of them into changes of the mounted configuration entities.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/Tunables.h"
#include "net/IntfId.h"
#include "net/IpGenAddr.h"
#include "policymap/AclRuleConfig.h"

namespace Waymark {

// What to do at start when the mangle table holds rules or chains that
// waymark did not write: refuse to start, or flush them with the table.
enum class MangleTable { refuseIfForeign, takeOver };

struct AccessListSpec {
  bool ipv6 = false;
  std::map<uint32_t, Acl::AclRuleConfig> rules;  // by sequence number
  bool operator==(const AccessListSpec&) const = default;
};

// One class of a policy map and what it does with matching traffic.
struct PolicyClassSpec {
  std::string className;
  std::vector<Velnet::IpGenAddr> nexthops;  // in order: primary first
  // The group the nexthops come from, when the class names one.
  std::string nexthopGroup;
  bool passthrough = false;
  bool operator==(const PolicyClassSpec&) const = default;
};

// How a nexthop is probed and when it counts as down or up again.
struct HealthCheckSpec {
  // Probed each round; the loader fills in the nexthop itself when the file
  // names none.
  std::vector<Velnet::IpGenAddr> targets;
  double interval = 1.0;   // seconds between rounds
  double timeout = 1.0;    // seconds a round waits for an answer
  uint32_t downAfter = 3;  // unanswered rounds in a row that withdraw it
  uint32_t upAfter = 5;    // answered rounds in a row that restore it
  bool operator==(const HealthCheckSpec&) const = default;
};

// Where each named thing stands in the file, for messages about it.
struct SourceLines {
  std::map<std::string, size_t> accessLists;
  std::map<std::pair<std::string, uint32_t>, size_t> rules;  // list, sequence number
  std::map<std::string, size_t> classMaps;
  std::map<std::string, size_t> nexthopGroups;
  std::map<std::pair<std::string, std::string>, size_t> policyClasses;  // policy, class
  std::map<Velnet::IpGenAddr, size_t> healthChecks;
};

struct ConfigModel {
  Tunables tunables;
  MangleTable mangleTable = MangleTable::refuseIfForeign;
  // Named nexthop lists, in order; classes that name one are resolved.
  std::map<std::string, std::vector<Velnet::IpGenAddr>> nexthopGroups;
  // By nexthop address.
  std::map<Velnet::IpGenAddr, HealthCheckSpec> healthChecks;
  std::map<std::string, AccessListSpec> accessLists;
  std::map<std::string, std::vector<std::string>> classMaps;
  // In configuration order.
  std::vector<std::pair<std::string, std::vector<PolicyClassSpec>>> policyMaps;
  std::map<Velnet::IntfId, std::string> interfaces;
  std::string file;
  SourceLines lines;

  const std::vector<PolicyClassSpec>* policyMap(const std::string& name) const {
    for (const auto& [n, classes] : policyMaps) {
      if (n == name) return &classes;
    }
    return nullptr;
  }
};

}  // namespace Waymark
