#include "framework/String.h"

namespace Vix {

namespace {

constexpr char kHex[] = "0123456789abcdef";

void hexByte(std::string& out, unsigned char c) {
  out += "\\x";
  out += kHex[c >> 4];
  out += kHex[c & 0xf];
}

// The length of the valid UTF-8 sequence of two or more bytes at the start
// of `text`, or 0: no overlong forms, no surrogates, nothing past U+10FFFF.
size_t multiByteLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;
    if (lead == 0xed) high = 0x9f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
  }
  return length;
}

}  // namespace

std::string loggable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t length = multiByteLength(text.substr(i));
      if (length == 0) {
        hexByte(out, c);
        ++i;
      } else {
        out.append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      hexByte(out, c);
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  return out;
}

std::string quoted(std::string_view text) {
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
      hexByte(out, c);
    } else {
      out += ch;
    }
  }
  out += '\'';
  return out;
}

}  // namespace Vix
