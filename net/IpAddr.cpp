#include "net/IpAddr.h"

#include "framework/Errors.h"
#include "framework/String.h"

namespace Velnet {

std::optional<IpAddr> IpAddr::tryParse(std::string_view text) {
  uint32_t value = 0;
  size_t i = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (i >= text.size() || text[i] != '.') return std::nullopt;
      ++i;
    }
    const size_t start = i;
    uint32_t n = 0;
    while (i < text.size() && i - start < 4 && text[i] >= '0' && text[i] <= '9') {
      n = n * 10 + static_cast<uint32_t>(text[i] - '0');
      ++i;
    }
    const size_t digits = i - start;
    if (digits == 0 || digits > 3 || n > 255) return std::nullopt;
    if (digits > 1 && text[start] == '0') return std::nullopt;
    value = (value << 8) | n;
  }
  if (i != text.size()) return std::nullopt;
  return IpAddr(value);
}

IpAddr IpAddr::parse(std::string_view text) {
  if (const auto a = tryParse(text)) return *a;
  throw Vix::ParseError("invalid IPv4 address: " + Vix::quoted(text));
}

std::string IpAddr::stringValue() const {
  std::string s;
  s.reserve(15);
  for (int shift = 24; shift >= 0; shift -= 8) {
    s += std::to_string((value_ >> shift) & 0xff);
    if (shift > 0) s += '.';
  }
  return s;
}

std::ostream& operator<<(std::ostream& os, const IpAddr& a) { return os << a.stringValue(); }

}  // namespace Velnet
