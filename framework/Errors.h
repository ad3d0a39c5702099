// Failure kinds shared by every layer of waymark.
//
// Programming errors are assertions that print their text and abort the
// process; values out of range raise RangeError, whose text by convention ends
// in "not allowed"; text that cannot be read raises ParseError naming the text.
// Kernel and shell failures are never raised: the logic records them in state.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Vix {

// A value outside what a type or a collection accepts.
class RangeError : public std::range_error {
 public:
  explicit RangeError(const std::string& text) : std::range_error(text) {}
};

// Raises RangeError with `condition` followed by " not allowed", the framework's
// wording for a violated value constraint ("TcpFlag::value > 0x3f not allowed").
[[noreturn]] void notAllowed(std::string_view condition);

// Re-instantiating an entity under a key it already has, with other arguments.
class NameInUseError : public std::logic_error {
 public:
  explicit NameInUseError(const std::string& text) : std::logic_error(text) {}
};

// Dereferencing an empty Vix::Ptr.
class NullPtrError : public std::logic_error {
 public:
  NullPtrError() : std::logic_error("null ValidPtr") {}
};

// Text that is not a valid form of the value it should describe.
class ParseError : public std::invalid_argument {
 public:
  explicit ParseError(const std::string& text) : std::invalid_argument(text) {}
};

// Prints the failed condition with its location and aborts the process.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line);

}  // namespace Vix

// Aborts with `text` when `cond` is false. Always on: a broken invariant in a
// router's forwarding state must stop the daemon, not be carried on.
#define VIX_ASSERT(cond, text)                            \
  do {                                                    \
    if (!(cond)) [[unlikely]]                             \
      ::Vix::assertionFailed((text), __FILE__, __LINE__); \
  } while (0)
