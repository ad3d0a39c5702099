// What the deferred programming loop still has to do for a nexthop.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "framework/String.h"

namespace Pbr {

enum PendingNexthopOperation : uint8_t {
  pendingNone = 0,
  pendingAdd = 1,     // program the nexthop
  pendingDelete = 2,  // remove it and release its resources
};

// The enumerator's name; any other value as "PendingNexthopOperation(%d)".
inline std::string toString(PendingNexthopOperation op) {
  switch (op) {
    case pendingNone:
      return "pendingNone";
    case pendingAdd:
      return "pendingAdd";
    case pendingDelete:
      return "pendingDelete";
  }
  return Vix::format("PendingNexthopOperation(%d)", static_cast<int>(op));
}

inline std::ostream& operator<<(std::ostream& os, PendingNexthopOperation op) {
  return os << toString(op);
}

}  // namespace Pbr
