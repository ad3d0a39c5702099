// Velnet::Ip6Prefix: an IPv6 subnet, the address with every bit beyond the
// mask length cleared. A mask length above 128 raises
// "Prefix::validAsPrefix != true not allowed", as for IPv4.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "net/Ip6Addr.h"
#include "net/Ip6AddrWithMask.h"

namespace Velnet {

class Ip6Prefix {
 public:
  static constexpr int kMaxLen = 128;

  // ::/0.
  Ip6Prefix() = default;
  Ip6Prefix(const Ip6Addr& addr, int maskLen);
  explicit Ip6Prefix(const Ip6AddrWithMask& a) : Ip6Prefix(a.addr(), a.maskLen()) {}

  // Reads "addr/len"; host bits are cleared. Throws Vix::ParseError.
  static Ip6Prefix parse(std::string_view text);
  static std::optional<Ip6Prefix> tryParse(std::string_view text);

  static constexpr bool validAsPrefix(int maskLen) { return maskLen >= 0 && maskLen <= kMaxLen; }

  const Ip6Addr& network() const { return network_; }
  uint8_t maskLen() const { return maskLen_; }
  bool contains(const Ip6Addr& a) const;
  std::string stringValue() const;
  uint32_t hash() const;

  auto operator<=>(const Ip6Prefix&) const = default;

 private:
  Ip6Addr network_;
  uint8_t maskLen_ = 0;
};

std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p);

// `addr` with every bit beyond `maskLen` cleared. REQUIRES: maskLen <= 128.
Ip6Addr masked(const Ip6Addr& addr, int maskLen);

}  // namespace Velnet
