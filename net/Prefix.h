// Velnet::Prefix: an IPv4 subnet, the address with every bit beyond the mask
// length cleared (10.1.1.1/24 gives 10.1.1.0/24). A mask length above 32
// raises "Prefix::validAsPrefix != true not allowed".
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"
#include "net/IpAddr.h"
#include "net/IpAddrWithMask.h"

namespace Velnet {

class Prefix {
 public:
  static constexpr int kMaxLen = 32;

  // 0.0.0.0/0.
  Prefix() = default;
  Prefix(const IpAddr& addr, int maskLen);
  explicit Prefix(const IpAddrWithMask& a) : Prefix(a.addr(), a.maskLen()) {}

  // Reads "a.b.c.d/len"; host bits are cleared. Throws Vix::ParseError.
  static Prefix parse(std::string_view text);
  static std::optional<Prefix> tryParse(std::string_view text);

  static constexpr bool validAsPrefix(int maskLen) { return maskLen >= 0 && maskLen <= kMaxLen; }
  // The netmask of `maskLen` bits as a host-order number.
  static constexpr uint32_t netmask(int maskLen) {
    return maskLen == 0 ? 0 : ~uint32_t{0} << (32 - maskLen);
  }

  const IpAddr& network() const { return network_; }
  uint8_t maskLen() const { return maskLen_; }
  bool contains(const IpAddr& a) const {
    return (a.value() & netmask(maskLen_)) == network_.value();
  }
  std::string stringValue() const;
  uint32_t hash() const { return Vix::wangHash32(network_.value() ^ maskLen_); }

  auto operator<=>(const Prefix&) const = default;

 private:
  IpAddr network_;
  uint8_t maskLen_ = 0;
};

std::ostream& operator<<(std::ostream& os, const Prefix& p);

}  // namespace Velnet
