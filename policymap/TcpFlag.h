// Acl::TcpFlag: a set of the six classic TCP flags (FIN 0x01, SYN 0x02,
// RST 0x04, PSH 0x08, ACK 0x10, URG 0x20). A value above 0x3f raises
// "TcpFlag::value > 0x3f not allowed".
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "framework/Errors.h"

namespace Acl {

class TcpFlag {
 public:
  static constexpr uint8_t fin = 0x01;
  static constexpr uint8_t syn = 0x02;
  static constexpr uint8_t rst = 0x04;
  static constexpr uint8_t psh = 0x08;
  static constexpr uint8_t ack = 0x10;
  static constexpr uint8_t urg = 0x20;
  static constexpr uint8_t kMax = 0x3f;

  constexpr TcpFlag() = default;
  explicit TcpFlag(uint32_t value) {
    if (value > kMax) Vix::notAllowed("TcpFlag::value > 0x3f");
    value_ = static_cast<uint8_t>(value);
  }

  uint8_t value() const { return value_; }
  bool empty() const { return value_ == 0; }
  // Upper-case names joined by commas, as iptables writes them ("SYN,ACK").
  std::string names() const;

  auto operator<=>(const TcpFlag&) const = default;

 private:
  uint8_t value_ = 0;
};

}  // namespace Acl
