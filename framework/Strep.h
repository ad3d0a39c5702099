// The framework's text form of value types ("strep"), and a reader for it.
//
// A value is written as Value('Qualified::Type', ** {'attr': value, ...}),
// strings in single quotes with backslash escapes (Vix::quoted), numbers in
// decimal, nested values in their own text form. StrepReader reads one value
// attribute by attribute; a type's parser asks it for the fixed parts
// (needString), attribute names and values, and reports errors the framework
// way: "premature end of value type T", "T has no such attribute: NAME", an
// error inside an attribute prefixed with the attribute's name, and
// "junk at column N deserializing T" for text left after the value.
// White space between tokens is tolerated; a missing attribute keeps its
// default.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Errors.h"

namespace Vix {

class StrepReader {
 public:
  explicit StrepReader(std::string_view text) : text_(text) {}

  // Opens a value of `qualifiedType`; `type` (the short name) is what errors
  // name. Throws ParseError.
  void openValue(std::string_view qualifiedType, std::string_view type);
  // The next attribute's name, or nothing when the value closes ("})").
  std::optional<std::string> nextAttribute();
  std::string readString();
  // A decimal number no greater than `max`.
  uint64_t readUnsigned(uint64_t max);
  // Ends the value opened last. REQUIRES: nextAttribute() returned nothing.
  void closeValue();
  // REQUIRES: the whole text was one value; anything after it is junk.
  void finish();

  // Consumes `literal` after optional white space, or throws.
  void needString(std::string_view literal);
  // Runs `read` for attribute `name`, prefixing any error with the name.
  template <class F>
  auto attribute(std::string_view name, F&& read) -> decltype(read()) {
    try {
      return read();
    } catch (const ParseError& e) {
      throw ParseError(std::string(name) + ": " + e.what());
    } catch (const RangeError& e) {
      throw ParseError(std::string(name) + ": " + e.what());
    }
  }
  [[noreturn]] void noSuchAttribute(const std::string& name) const;

 private:
  void skipSpace();
  [[noreturn]] void prematureEnd() const;

  const std::string& type() const;

  std::string_view text_;
  size_t pos_ = 0;
  std::vector<std::string> types_;  // short names of the open values, innermost last
  std::string outerType_;
};

// Writes Value('type', ** {...}) from already formatted "'attr': value" parts.
std::string strepValue(std::string_view qualifiedType, std::initializer_list<std::string> attrs);
std::string strepAttr(std::string_view name, const std::string& formattedValue);

}  // namespace Vix
