// Velnet::IntfId: an interface, named by its Linux network device name
// everywhere in waymark ("eth1", "bond0.100"). The empty id means "no
// interface" (for example the owner of an address nobody holds).
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"

namespace Velnet {

class IntfId {
 public:
  static constexpr size_t kMaxNameLen = 15;  // IFNAMSIZ less the terminating zero

  IntfId() = default;
  explicit IntfId(std::string name) : name_(std::move(name)) {}

  // Accepts device names of 1 to 15 letters, digits, '_', '.' and '-', not
  // "." or ".." and not starting with '-'. The kernel allows more, but a name
  // is written into `ip` and iptables command lines, so nothing that a shell
  // or an option parser could read differently is let in. Throws
  // Vix::ParseError naming the text.
  static IntfId parse(std::string_view text);
  static bool validName(std::string_view text);

  const std::string& stringValue() const { return name_; }
  bool empty() const { return name_.empty(); }
  uint32_t hash() const { return Vix::fnv1a32(name_); }

  auto operator<=>(const IntfId&) const = default;

 private:
  std::string name_;
};

std::ostream& operator<<(std::ostream& os, const IntfId& i);

}  // namespace Velnet
