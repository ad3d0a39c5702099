// Waymark::ClassCounters: each class's traffic, from the kernel's counters
// of its rules. Where each policy's classes sit in its chain is taken from
// the plug-in on the event loop; the read-back and the sums run off it,
// needing nothing of the plug-in. Used by `waymarkctl counters` and the
// metrics.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernel/MangleReadback.h"
#include "plugin/AclPlugin.h"

namespace Waymark {

class ClassCounters {
 public:
  // Where one policy's classes sit in its family's chain.
  struct ChainClasses {
    std::string policy;
    const char* family;
    std::string chain;
    std::vector<std::pair<uint32_t, std::string>> positions;  // rule position, class
    std::vector<std::string> classes;                         // in order, those with rules
  };
  // IPv4's, then IPv6's.
  using Chains = std::array<std::vector<ChainClasses>, 2>;
  using ReadBack = std::function<Kernel::MangleReadback::RuleCounters(bool v6)>;

  // On the loop.
  static Chains chainsOf(const Pbr::AclPlugin& plugin);
  // Off it: [{policy, family, class, packets, bytes}], reading back only
  // the families that have chains.
  static nlohmann::json read(const Chains& chains, const ReadBack& readBack);
};

}  // namespace Waymark
