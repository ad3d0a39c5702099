// Waymark::ConfigLinter: what a valid configuration says that cannot work
// as its author meant, found before it is applied. `waymarkd --check` prints
// the warnings (and still succeeds); a reload logs them. Each names the file,
// the line and the class or list:
// - a rule, or a whole class, that can never match because an earlier rule
//   of the same policy covers it (addresses, ports, protocol and TCP flags
//   contained in the earlier rule's);
// - a class with lists of a family for which it has no nexthop;
// - a list, class, nexthop group or health check that nothing uses.
#pragma once

#include <string>
#include <vector>

#include "config/ConfigModel.h"

namespace Waymark {

class ConfigLinter {
 public:
  static std::vector<std::string> warnings(const ConfigModel& model);
  // Whether every packet one sub-rule of `inner` (with flags `innerFlags`)
  // matches is matched by one of `outer` (with flags `outerFlags`).
  static bool covers(const Acl::AclRuleConfig& outer, uint8_t outerFlags,
                     const Acl::AclRuleConfig& inner, uint8_t innerFlags);
};

}  // namespace Waymark
