#include "framework/String.h"

namespace Vix {

std::string quoted(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 2);
  out += '\'';
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += ch;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c >= 0x7f) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    } else {
      out += ch;
    }
  }
  out += '\'';
  return out;
}

}  // namespace Vix
