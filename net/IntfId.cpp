#include "net/IntfId.h"

#include "framework/Errors.h"
#include "framework/String.h"

namespace Velnet {

bool IntfId::validName(std::string_view text) {
  if (text.empty() || text.size() > kMaxNameLen) return false;
  if (text == "." || text == "..") return false;
  if (text.front() == '-') return false;
  for (const char c : text) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '.' || c == '-';
    if (!ok) return false;
  }
  return true;
}

IntfId IntfId::parse(std::string_view text) {
  if (!validName(text)) {
    throw Vix::ParseError("invalid interface name: " + Vix::quoted(text) +
                          " (1 to 15 letters, digits, '_', '.' or '-', not starting with '-')");
  }
  return IntfId(std::string(text));
}

std::ostream& operator<<(std::ostream& os, const IntfId& i) { return os << i.stringValue(); }

}  // namespace Velnet
