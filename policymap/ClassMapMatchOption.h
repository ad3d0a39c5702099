// PolicyMap::ClassMapMatchOption: the address family of a policy's match
// rules. Each family has its own chains, queue and iptables writer.
#pragma once

#include <cstdint>
#include <ostream>

namespace PolicyMap {

enum ClassMapMatchOption : uint8_t {
  matchIpv4 = 0,
  matchIpv6 = 1,
};

inline const char* familyName(ClassMapMatchOption option) {
  return option == matchIpv6 ? "ipv6" : "ipv4";
}

}  // namespace PolicyMap
