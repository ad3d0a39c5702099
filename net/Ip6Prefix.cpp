#include "net/Ip6Prefix.h"

#include "framework/Errors.h"
#include "framework/Hash.h"
#include "framework/String.h"

namespace Velnet {

Ip6Addr masked(const Ip6Addr& addr, int maskLen) {
  Ip6Addr::Bytes bytes = addr.bytes();
  for (int i = 0; i < 16; ++i) {
    const int bits = maskLen - 8 * i;
    if (bits >= 8) continue;
    bytes[i] = bits <= 0 ? 0 : static_cast<uint8_t>(bytes[i] & (0xff00 >> bits));
  }
  return Ip6Addr(bytes);
}

Ip6Prefix::Ip6Prefix(const Ip6Addr& addr, int maskLen) {
  if (!validAsPrefix(maskLen)) Vix::notAllowed("Prefix::validAsPrefix != true");
  network_ = masked(addr, maskLen);
  maskLen_ = static_cast<uint8_t>(maskLen);
}

bool Ip6Prefix::contains(const Ip6Addr& a) const { return masked(a, maskLen_) == network_; }

std::optional<Ip6Prefix> Ip6Prefix::tryParse(std::string_view text) {
  const auto a = Ip6AddrWithMask::tryParse(text);
  if (!a) return std::nullopt;
  return Ip6Prefix(*a);
}

Ip6Prefix Ip6Prefix::parse(std::string_view text) {
  if (const auto p = tryParse(text)) return *p;
  throw Vix::ParseError("invalid IPv6 prefix: " + Vix::quoted(text));
}

std::string Ip6Prefix::stringValue() const {
  return network_.stringValue() + "/" + std::to_string(maskLen_);
}

uint32_t Ip6Prefix::hash() const { return Vix::wangHash32(network_.hash() ^ maskLen_); }

std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p) { return os << p.stringValue(); }

}  // namespace Velnet
