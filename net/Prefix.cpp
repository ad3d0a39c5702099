#include "net/Prefix.h"

#include "framework/Errors.h"
#include "framework/String.h"

namespace Velnet {

Prefix::Prefix(const IpAddr& addr, int maskLen) {
  if (!validAsPrefix(maskLen)) Vix::notAllowed("Prefix::validAsPrefix != true");
  network_ = IpAddr(addr.value() & netmask(maskLen));
  maskLen_ = static_cast<uint8_t>(maskLen);
}

std::optional<Prefix> Prefix::tryParse(std::string_view text) {
  const auto a = IpAddrWithMask::tryParse(text);
  if (!a) return std::nullopt;
  return Prefix(*a);
}

Prefix Prefix::parse(std::string_view text) {
  if (const auto p = tryParse(text)) return *p;
  throw Vix::ParseError("invalid IPv4 prefix: " + Vix::quoted(text));
}

std::string Prefix::stringValue() const {
  return network_.stringValue() + "/" + std::to_string(maskLen_);
}

std::ostream& operator<<(std::ostream& os, const Prefix& p) { return os << p.stringValue(); }

}  // namespace Velnet
