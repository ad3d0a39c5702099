// Text for messages and logs whatever bytes it is given.
#include "framework/String.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace {

TEST(LoggableTest, KeepsPrintableTextAndValidCharactersOfEveryLength) {
  EXPECT_EQ(Vix::loggable("eth0 up: 198.51.100.2"), "eth0 up: 198.51.100.2");
  const std::string utf8 = "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80";  // e-acute, euro, an emoji
  EXPECT_EQ(Vix::loggable(utf8), utf8);
}

TEST(LoggableTest, EscapesControlBytesSoThatALineStaysOneLine) {
  EXPECT_EQ(Vix::loggable("a\nb\tc\\d\x1b[2J\x7f"), "a\\nb\\tc\\\\d\\x1b[2J\\x7f");
}

TEST(LoggableTest, EscapesEveryByteOfAnInvalidSequence) {
  // A lone continuation byte, a lead byte cut short, an overlong slash, a
  // surrogate and a code point past U+10FFFF.
  EXPECT_EQ(Vix::loggable("\x80"), "\\x80");
  EXPECT_EQ(Vix::loggable("\xe2\x82"), "\\xe2\\x82");
  EXPECT_EQ(Vix::loggable("\xc0\xaf"), "\\xc0\\xaf");
  EXPECT_EQ(Vix::loggable("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(Vix::loggable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(LoggableTest, AnyBytesGiveValidUtf8) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  const std::string text = Vix::loggable(all + all.substr(128) + "\xe2");
  EXPECT_NO_THROW((void)nlohmann::json(text).dump());
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

}  // namespace
