#include "net/Ip6AddrWithMask.h"

#include "framework/Errors.h"
#include "framework/String.h"
#include "net/IpAddrWithMask.h"

namespace Velnet {

std::optional<Ip6AddrWithMask> Ip6AddrWithMask::tryParse(std::string_view text) {
  const auto parts = splitMaskLen(text, 128);
  if (!parts) return std::nullopt;
  const auto addr = Ip6Addr::tryParse(parts->first);
  if (!addr) return std::nullopt;
  return Ip6AddrWithMask(*addr, parts->second);
}

Ip6AddrWithMask Ip6AddrWithMask::parse(std::string_view text) {
  if (const auto a = tryParse(text)) return *a;
  throw Vix::ParseError("invalid IPv6 address with mask: " + Vix::quoted(text));
}

std::string Ip6AddrWithMask::stringValue() const {
  return addr_.stringValue() + "/" + std::to_string(maskLen_);
}

std::ostream& operator<<(std::ostream& os, const Ip6AddrWithMask& a) {
  return os << a.stringValue();
}

}  // namespace Velnet
