// Velnet::IpAddrWithMask: an interface's IPv4 address with its mask length
// (10.1.1.1/24). Two addresses of one subnet are two different values; the
// subnet itself is a Velnet::Prefix. The value holds any length it is given,
// so that the prefix type is the one that rejects a length above 32.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"
#include "net/IpAddr.h"

namespace Velnet {

class IpAddrWithMask {
 public:
  constexpr IpAddrWithMask() = default;
  constexpr IpAddrWithMask(const IpAddr& addr, uint8_t maskLen) : addr_(addr), maskLen_(maskLen) {}

  // Reads "a.b.c.d/len" with len 0-32. Throws Vix::ParseError naming the text.
  static IpAddrWithMask parse(std::string_view text);
  static std::optional<IpAddrWithMask> tryParse(std::string_view text);

  constexpr const IpAddr& addr() const { return addr_; }
  constexpr uint8_t maskLen() const { return maskLen_; }
  constexpr bool isZero() const { return addr_.isZero() && maskLen_ == 0; }
  std::string stringValue() const;
  // Wang's hash of the host-order address XOR the mask length.
  uint32_t hash() const { return Vix::wangHash32(addr_.value() ^ maskLen_); }

  constexpr auto operator<=>(const IpAddrWithMask&) const = default;

 private:
  IpAddr addr_;
  uint8_t maskLen_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& a);

// Splits "text/len" and reads len as a decimal number no greater than
// `maxLen`; nothing when the form is wrong.
std::optional<std::pair<std::string_view, uint8_t>> splitMaskLen(std::string_view text, int maxLen);

}  // namespace Velnet
