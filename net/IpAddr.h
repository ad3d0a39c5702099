// Velnet::IpAddr: an IPv4 address, held as its host-order number
// (10.0.0.1 is 0x0a000001), so that ordering and masking are plain integer
// operations. Text form: the dotted quad.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"

namespace Velnet {

class IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(uint32_t value) : value_(value) {}

  // Reads a dotted quad: four decimal numbers 0-255 without leading zeros.
  // Throws Vix::ParseError naming the text.
  static IpAddr parse(std::string_view text);
  static std::optional<IpAddr> tryParse(std::string_view text);

  constexpr uint32_t value() const { return value_; }
  constexpr bool isZero() const { return value_ == 0; }
  std::string stringValue() const;
  uint32_t hash() const { return Vix::wangHash32(value_); }

  constexpr auto operator<=>(const IpAddr&) const = default;

 private:
  uint32_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IpAddr& a);

}  // namespace Velnet
