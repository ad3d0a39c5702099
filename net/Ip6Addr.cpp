#include "net/Ip6Addr.h"

#include <cstring>
#include <vector>

#include "framework/Errors.h"
#include "framework/Hash.h"
#include "framework/String.h"
#include "net/IpAddr.h"

namespace Velnet {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads the groups of one side of "::" into `out`; a dotted quad is allowed
// as the last part of the address only (`lastSide`). False on any error.
bool parseGroups(std::string_view side, bool lastSide, std::vector<uint16_t>& out) {
  if (side.empty()) return true;
  size_t i = 0;
  while (true) {
    const size_t colon = side.find(':', i);
    const std::string_view part =
        side.substr(i, colon == std::string_view::npos ? std::string_view::npos : colon - i);
    if (colon == std::string_view::npos && lastSide && part.find('.') != std::string_view::npos) {
      const auto v4 = IpAddr::tryParse(part);
      if (!v4) return false;
      out.push_back(static_cast<uint16_t>(v4->value() >> 16));
      out.push_back(static_cast<uint16_t>(v4->value() & 0xffff));
      return true;
    }
    if (part.empty() || part.size() > 4) return false;
    uint16_t g = 0;
    for (const char c : part) {
      const int d = hexDigit(c);
      if (d < 0) return false;
      g = static_cast<uint16_t>((g << 4) | d);
    }
    out.push_back(g);
    if (out.size() > 8) return false;
    if (colon == std::string_view::npos) return true;
    i = colon + 1;
  }
}

}  // namespace

std::optional<Ip6Addr> Ip6Addr::tryParse(std::string_view text) {
  if (text.size() < 2 || text.size() > 45) return std::nullopt;
  const size_t gap = text.find("::");
  std::vector<uint16_t> head;
  std::vector<uint16_t> tail;
  if (gap == std::string_view::npos) {
    if (!parseGroups(text, true, head) || head.size() != 8) return std::nullopt;
  } else {
    const std::string_view left = text.substr(0, gap);
    const std::string_view right = text.substr(gap + 2);
    if (right.find("::") != std::string_view::npos) return std::nullopt;
    if (!parseGroups(left, false, head) || !parseGroups(right, true, tail)) return std::nullopt;
    if (head.size() + tail.size() > 7) return std::nullopt;
  }
  Bytes bytes{};
  auto put = [&](size_t index, uint16_t g) {
    bytes[2 * index] = static_cast<uint8_t>(g >> 8);
    bytes[2 * index + 1] = static_cast<uint8_t>(g & 0xff);
  };
  for (size_t i = 0; i < head.size(); ++i) put(i, head[i]);
  for (size_t i = 0; i < tail.size(); ++i) put(8 - tail.size() + i, tail[i]);
  return Ip6Addr(bytes);
}

Ip6Addr Ip6Addr::parse(std::string_view text) {
  if (const auto a = tryParse(text)) return *a;
  throw Vix::ParseError("invalid IPv6 address: " + Vix::quoted(text));
}

std::string Ip6Addr::stringValue() const {
  static constexpr char kHex[] = "0123456789abcdef";
  const bool v4Mapped = group(0) == 0 && group(1) == 0 && group(2) == 0 && group(3) == 0 &&
                        group(4) == 0 && group(5) == 0xffff;
  const int groups = v4Mapped ? 6 : 8;
  // The longest run of at least two zero groups, the leftmost on a tie.
  int bestStart = -1;
  int bestLength = 1;
  for (int i = 0; i < groups;) {
    if (group(i) != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < groups && group(j) == 0) ++j;
    if (j - i > bestLength) {
      bestStart = i;
      bestLength = j - i;
    }
    i = j;
  }
  std::string s;
  s.reserve(45);
  for (int i = 0; i < groups; ++i) {
    if (i == bestStart) {
      s += "::";
      i += bestLength - 1;
      continue;
    }
    if (!s.empty() && s.back() != ':') s += ':';
    const uint16_t g = group(i);
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
      const int d = (g >> shift) & 0xf;
      if (d == 0 && !started && shift > 0) continue;
      started = true;
      s += kHex[d];
    }
  }
  if (v4Mapped) {
    if (s.back() != ':') s += ':';
    uint32_t v4 = 0;
    std::memcpy(&v4, &bytes_[12], 4);
    s += IpAddr(__builtin_bswap32(v4)).stringValue();
  }
  return s;
}

uint32_t Ip6Addr::hash() const {
  uint32_t h = 0;
  for (int w = 0; w < 4; ++w) {
    uint32_t word = 0;
    std::memcpy(&word, &bytes_[4 * w], 4);
    h = Vix::wangHash32(h ^ word);
  }
  return h;
}

std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) { return os << a.stringValue(); }

}  // namespace Velnet
