// PolicyMap::SubRuleData: what the framework hands over with one sub-rule:
// its TCP flag set, as a raw value that the receiver validates.
#pragma once

#include <cstdint>

namespace PolicyMap {

struct SubRuleData {
  uint32_t tcpFlag = 0;
};

}  // namespace PolicyMap
