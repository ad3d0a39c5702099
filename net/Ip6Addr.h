// Velnet::Ip6Addr: an IPv6 address as its 16 bytes in network order.
// Text form: RFC 5952 (lower case, no leading zeros, the longest run of two or
// more zero groups written "::", IPv4-mapped addresses as ::ffff:a.b.c.d).
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Velnet {

class Ip6Addr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Bytes& bytes) : bytes_(bytes) {}

  // Reads any RFC 4291 text form (full, "::"-compressed, trailing dotted
  // quad); zone ids are not addresses and are rejected. Throws
  // Vix::ParseError naming the text.
  static Ip6Addr parse(std::string_view text);
  static std::optional<Ip6Addr> tryParse(std::string_view text);

  const Bytes& bytes() const { return bytes_; }
  // The 16-bit group `i` (0 is the leftmost).
  uint16_t group(int i) const {
    return static_cast<uint16_t>((bytes_[2 * i] << 8) | bytes_[2 * i + 1]);
  }
  bool isZero() const { return *this == Ip6Addr(); }
  std::string stringValue() const;
  uint32_t hash() const;

  constexpr auto operator<=>(const Ip6Addr&) const = default;

 private:
  Bytes bytes_{};
};

std::ostream& operator<<(std::ostream& os, const Ip6Addr& a);

}  // namespace Velnet
