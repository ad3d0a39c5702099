// Velnet::Ip6AddrWithMask: an interface's IPv6 address with its mask length
// (2001:db8::1/64); the IPv6 twin of IpAddrWithMask.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"
#include "net/Ip6Addr.h"

namespace Velnet {

class Ip6AddrWithMask {
 public:
  Ip6AddrWithMask() = default;
  Ip6AddrWithMask(const Ip6Addr& addr, uint8_t maskLen) : addr_(addr), maskLen_(maskLen) {}

  // Reads "addr/len" with len 0-128. Throws Vix::ParseError naming the text.
  static Ip6AddrWithMask parse(std::string_view text);
  static std::optional<Ip6AddrWithMask> tryParse(std::string_view text);

  const Ip6Addr& addr() const { return addr_; }
  uint8_t maskLen() const { return maskLen_; }
  bool isZero() const { return addr_.isZero() && maskLen_ == 0; }
  std::string stringValue() const;
  uint32_t hash() const { return Vix::wangHash32(addr_.hash() ^ maskLen_); }

  auto operator<=>(const Ip6AddrWithMask&) const = default;

 private:
  Ip6Addr addr_;
  uint8_t maskLen_ = 0;
};

std::ostream& operator<<(std::ostream& os, const Ip6AddrWithMask& a);

}  // namespace Velnet
