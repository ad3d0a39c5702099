#include "net/IpGenAddr.h"

#include "framework/Errors.h"
#include "framework/String.h"

namespace Velnet {

std::optional<IpGenAddr> IpGenAddr::tryParse(std::string_view text) {
  if (text.find(':') != std::string_view::npos) {
    if (const auto a = Ip6Addr::tryParse(text)) return IpGenAddr(*a);
    return std::nullopt;
  }
  if (const auto a = IpAddr::tryParse(text)) return IpGenAddr(*a);
  return std::nullopt;
}

IpGenAddr IpGenAddr::parse(std::string_view text) {
  if (const auto a = tryParse(text)) return *a;
  throw Vix::ParseError("invalid IP address: " + Vix::quoted(text));
}

std::string IpGenAddr::stringValue() const {
  switch (family_) {
    case Family::ipv4:
      return v4_.stringValue();
    case Family::ipv6:
      return v6_.stringValue();
    case Family::unset:
      break;
  }
  return "0.0.0.0";
}

uint32_t IpGenAddr::hash() const {
  switch (family_) {
    case Family::ipv4:
      return v4_.hash();
    case Family::ipv6:
      return v6_.hash();
    case Family::unset:
      break;
  }
  return 0;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.stringValue(); }

}  // namespace Velnet
