#include "net/IpAddrWithMask.h"

#include "framework/Errors.h"
#include "framework/String.h"

namespace Velnet {

std::optional<std::pair<std::string_view, uint8_t>> splitMaskLen(std::string_view text,
                                                                 int maxLen) {
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view digits = text.substr(slash + 1);
  if (digits.empty() || digits.size() > 3) return std::nullopt;
  if (digits.size() > 1 && digits[0] == '0') return std::nullopt;
  int len = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    len = len * 10 + (c - '0');
  }
  if (len > maxLen) return std::nullopt;
  return std::make_pair(text.substr(0, slash), static_cast<uint8_t>(len));
}

std::optional<IpAddrWithMask> IpAddrWithMask::tryParse(std::string_view text) {
  const auto parts = splitMaskLen(text, 32);
  if (!parts) return std::nullopt;
  const auto addr = IpAddr::tryParse(parts->first);
  if (!addr) return std::nullopt;
  return IpAddrWithMask(*addr, parts->second);
}

IpAddrWithMask IpAddrWithMask::parse(std::string_view text) {
  if (const auto a = tryParse(text)) return *a;
  throw Vix::ParseError("invalid IPv4 address with mask: " + Vix::quoted(text));
}

std::string IpAddrWithMask::stringValue() const {
  return addr_.stringValue() + "/" + std::to_string(maskLen_);
}

std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& a) {
  return os << a.stringValue();
}

}  // namespace Velnet
