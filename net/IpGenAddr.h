// Velnet::IpGenAddr: an IPv4 or an IPv6 address that carries its family, or
// the unset address (the default value). Key of every per-nexthop table and
// the type of a class's selected nexthop; the family decides which commands
// and which tables a nexthop uses.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "net/Ip6Addr.h"
#include "net/IpAddr.h"

namespace Velnet {

class IpGenAddr {
 public:
  enum class Family : uint8_t { unset = 0, ipv4 = 4, ipv6 = 6 };

  IpGenAddr() = default;
  IpGenAddr(const IpAddr& a) : family_(Family::ipv4), v4_(a) {}
  IpGenAddr(const Ip6Addr& a) : family_(Family::ipv6), v6_(a) {}

  // Reads an IPv6 address when the text has a colon, otherwise an IPv4 one.
  static IpGenAddr parse(std::string_view text);
  static std::optional<IpGenAddr> tryParse(std::string_view text);

  Family family() const { return family_; }
  bool isUnset() const { return family_ == Family::unset; }
  bool isV4() const { return family_ == Family::ipv4; }
  bool isV6() const { return family_ == Family::ipv6; }
  // REQUIRES: isV4().
  const IpAddr& v4() const { return v4_; }
  // REQUIRES: isV6().
  const Ip6Addr& v6() const { return v6_; }

  // The address's own text form; the unset address reads "0.0.0.0".
  std::string stringValue() const;
  uint32_t hash() const;

  auto operator<=>(const IpGenAddr&) const = default;

 private:
  Family family_ = Family::unset;
  IpAddr v4_;
  Ip6Addr v6_;
};

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);

}  // namespace Velnet
