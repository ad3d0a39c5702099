#include "framework/Strep.h"

#include "framework/String.h"

namespace Vix {

void StrepReader::skipSpace() {
  while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t')) ++pos_;
}

const std::string& StrepReader::type() const { return types_.empty() ? outerType_ : types_.back(); }

void StrepReader::prematureEnd() const {
  throw ParseError("premature end of value type " + type());
}

void StrepReader::needString(std::string_view literal) {
  skipSpace();
  for (const char c : literal) {
    if (c == ' ') {
      skipSpace();
      continue;
    }
    if (pos_ >= text_.size()) prematureEnd();
    if (text_[pos_] != c) {
      throw ParseError("expected " + quoted(literal) + " at column " + std::to_string(pos_) +
                       " deserializing " + type());
    }
    ++pos_;
  }
}

void StrepReader::openValue(std::string_view qualifiedType, std::string_view type) {
  if (types_.empty() && outerType_.empty()) outerType_ = std::string(type);
  types_.emplace_back(type);
  needString("Value(");
  const std::string name = readString();
  if (name != qualifiedType) {
    throw ParseError("value of type " + quoted(name) + " where " + std::string(qualifiedType) +
                     " was expected");
  }
  needString(", ** {");
}

std::optional<std::string> StrepReader::nextAttribute() {
  skipSpace();
  if (pos_ >= text_.size()) prematureEnd();
  if (text_[pos_] == '}') return std::nullopt;
  if (text_[pos_] == ',') ++pos_;
  std::string name = readString();
  needString(":");
  return name;
}

void StrepReader::closeValue() {
  needString("})");
  types_.pop_back();
}

std::string StrepReader::readString() {
  skipSpace();
  if (pos_ >= text_.size()) prematureEnd();
  if (text_[pos_] != '\'') {
    throw ParseError("expected a quoted string at column " + std::to_string(pos_) +
                     " deserializing " + type());
  }
  ++pos_;
  std::string out;
  while (true) {
    if (pos_ >= text_.size()) prematureEnd();
    const char c = text_[pos_++];
    if (c == '\'') return out;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (pos_ >= text_.size()) prematureEnd();
    const char e = text_[pos_++];
    if (e == 'n') {
      out += '\n';
    } else if (e == 't') {
      out += '\t';
    } else if (e == 'x') {
      if (pos_ + 2 > text_.size()) prematureEnd();
      const std::string hex(text_.substr(pos_, 2));
      if (hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw ParseError("bad escape at column " + std::to_string(pos_) + " deserializing " +
                         type());
      }
      out += static_cast<char>(std::stoi(hex, nullptr, 16));
      pos_ += 2;
    } else {
      out += e;
    }
  }
}

uint64_t StrepReader::readUnsigned(uint64_t max) {
  skipSpace();
  if (pos_ >= text_.size()) prematureEnd();
  const size_t start = pos_;
  uint64_t value = 0;
  while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
    const uint64_t digit = static_cast<uint64_t>(text_[pos_] - '0');
    // digit > max first: (max - digit) would wrap round for a small max.
    if (digit > max || value > (max - digit) / 10) {
      throw ParseError("number out of range at column " + std::to_string(start) +
                       " deserializing " + type());
    }
    value = value * 10 + digit;
    ++pos_;
  }
  if (pos_ == start) {
    throw ParseError("expected a number at column " + std::to_string(start) + " deserializing " +
                     type());
  }
  return value;
}

void StrepReader::finish() {
  skipSpace();
  if (pos_ < text_.size()) {
    throw ParseError(format("junk at column %lld deserializing %s", static_cast<long long>(pos_),
                            outerType_.c_str()));
  }
}

void StrepReader::noSuchAttribute(const std::string& name) const {
  throw ParseError(type() + " has no such attribute: " + name);
}

std::string strepAttr(std::string_view name, const std::string& formattedValue) {
  return quoted(name) + ": " + formattedValue;
}

std::string strepValue(std::string_view qualifiedType, std::initializer_list<std::string> attrs) {
  std::string out = "Value(" + quoted(qualifiedType) + ", ** {";
  bool first = true;
  for (const auto& a : attrs) {
    if (!first) out += ", ";
    out += a;
    first = false;
  }
  return out + "})";
}

}  // namespace Vix
