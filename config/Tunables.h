// Waymark::Tunables: the run-time settings of the daemon, their defaults
// (the plug-in's own) and their ranges, in one place for the configuration
// file and for `waymarkctl set`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "iptables/AclTypeData.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

// How routing commands reach the kernel: each as an `ip` process through the
// shell, or carried out in-process as rtnetlink requests.
enum class CommandExecutor { shell, netlink };

struct Tunables {
  double nexthopProgrammingTimeLimit = Pbr::NexthopTableManager::nexthopProgrammingTimeLimitDefault;
  uint32_t rulesPerInvocation = Pbr::Iptables::AclTypeData::rulesPerInvocationDefault;
  double ruleProgrammingTimeLimit = Pbr::Iptables::AclTypeData::ruleProgrammingTimeLimitDefault;
  CommandExecutor commandExecutor = CommandExecutor::netlink;

  // Every tunable's name.
  static const std::vector<std::string>& names();
  // Sets the tunable `name` from its text; "" or why not (nothing changed).
  std::string assign(const std::string& name, const std::string& value);

  bool operator==(const Tunables&) const = default;
};

}  // namespace Waymark
