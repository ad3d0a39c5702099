#include "policymap/TcpFlag.h"

namespace Acl {

std::string TcpFlag::names() const {
  static constexpr const char* kNames[] = {"FIN", "SYN", "RST", "PSH", "ACK", "URG"};
  std::string out;
  for (int bit = 0; bit < 6; ++bit) {
    if ((value_ & (1u << bit)) == 0) continue;
    if (!out.empty()) out += ',';
    out += kNames[bit];
  }
  return out;
}

}  // namespace Acl
