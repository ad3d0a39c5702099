// The framework's string types and printf-style formatting.
//
// String8 is text as bytes (rule lines, command lines); Name is the name of an
// entity. Both are std::string: the distinction is one of meaning, and keeping
// them one type lets text move between them without copies.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace Vix {

using String8 = std::string;
using Name = std::string;

// printf-style formatting into a string ("cell/%d/pbr/status/iptables").
template <class... Args>
std::string format(const char* fmt, Args... args) {
  if constexpr (sizeof...(Args) == 0) {
    return fmt;
  } else {
    const int n = std::snprintf(nullptr, 0, fmt, args...);
    if (n <= 0) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    std::snprintf(out.data(), out.size() + 1, fmt, args...);
    return out;
  }
}

}  // namespace Vix

namespace Vix {

// `text` in single quotes for an error message, with quotes, backslashes and
// bytes that are not printable ASCII escaped (\n, \t, \xNN), so that hostile
// input can neither break a message nor reach a terminal raw.
std::string quoted(std::string_view text);

// `text` as one line of valid UTF-8 for a log: control bytes, backslashes
// and bytes that are not part of a valid UTF-8 sequence are escaped (\n,
// \t, \\, \xNN); valid multi-byte characters stay as they are. Kernel
// strings (an interface name may hold any byte but NUL and '/') reach the
// log through it.
std::string loggable(std::string_view text);

}  // namespace Vix
