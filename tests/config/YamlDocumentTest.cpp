// The YAML reader under the configuration loader: what counts as null, how
// aliases and places come out, and how a file that is not YAML is refused.
#include "config/YamlDocument.h"

#include <gtest/gtest.h>

#include <string>

namespace Waymark {
namespace {

// "LINE:COLUMN: what" of the error `text` raises, or "parsed".
std::string syntaxError(const std::string& text) {
  try {
    YamlDocument document(text);
  } catch (const YamlSyntaxError& e) {
    return std::to_string(e.line()) + ":" + std::to_string(e.column()) + ": " + e.what();
  }
  return "parsed";
}

TEST(YamlDocumentTest, PlainEmptyTildeAndNullAreNullButQuotedOnesAreText) {
  const YamlDocument d("a:\nb: ~\nc: null\nd: NULL\ne: 'null'\nf: \"\"\ng: nil\n");
  std::string kinds;
  for (const auto& [key, value] : d.root().pairs()) {
    kinds += key.scalar() + (value.isNull() ? "=null " : value.isScalar() ? "=text " : "=? ");
  }
  EXPECT_EQ(kinds, "a=null b=null c=null d=null e=text f=text g=text ");
}

TEST(YamlDocumentTest, AnEmptyOrCommentOnlyFileHasNoRoot) {
  EXPECT_FALSE(YamlDocument("").root());
  EXPECT_FALSE(YamlDocument("# nothing yet\n").root());
}

TEST(YamlDocumentTest, NodesKnowWhereTheyStartAndKeepTheFilesOrder) {
  const YamlDocument d("top:\n  z: [x, 'y']\n  a:\n    - 1\n");
  const auto top = d.root().pairs();
  ASSERT_EQ(top.size(), 1u);
  const auto inner = top[0].second.pairs();
  ASSERT_EQ(inner.size(), 2u);
  EXPECT_EQ(inner[0].first.scalar(), "z");
  const auto flow = inner[0].second.items();
  ASSERT_EQ(flow.size(), 2u);
  EXPECT_EQ(flow[1].scalar(), "y");
  EXPECT_EQ(std::make_pair(flow[1].line(), flow[1].column()), std::make_pair(2ul, 10ul));
  const auto block = inner[1].second.items();
  ASSERT_EQ(block.size(), 1u);
  EXPECT_EQ(std::make_pair(block[0].line(), block[0].column()), std::make_pair(4ul, 7ul));
}

TEST(YamlDocumentTest, AnAliasIsItsAnchorsNode) {
  const YamlDocument d("a: &pair [192.0.2.1, 192.0.2.2]\nb: *pair\n");
  const auto pairs = d.root().pairs();
  ASSERT_EQ(pairs.size(), 2u);
  ASSERT_TRUE(pairs[1].second.isSequence());
  EXPECT_EQ(pairs[1].second.items().at(1).scalar(), "192.0.2.2");
  // The node, not a copy: it starts where the anchor's does.
  EXPECT_EQ(pairs[1].second.line(), 1u);
}

TEST(YamlDocumentTest, AnAliasCannotNameTheCollectionItStandsIn) {
  EXPECT_EQ(syntaxError("a: &loop [1, *loop]\n"), "1:14: found undefined alias");
}

TEST(YamlDocumentTest, NestingIsBoundedWhereTheLimitIsCrossed) {
  const size_t limit = YamlDocument::kMaxDepth;
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']') + "\n";
  };
  EXPECT_EQ(syntaxError(nested(limit)), "parsed");
  EXPECT_EQ(syntaxError(nested(limit + 1)),
            "1:" + std::to_string(limit + 1) + ": nesting deeper than 64 levels");
}

TEST(YamlDocumentTest, WhatIsNotYamlIsRefusedWithItsPlace) {
  EXPECT_EQ(syntaxError("x: [a, b\ny: 1\n"),
            "2:2: did not find expected ',' or ']' while parsing a flow sequence that starts at "
            "line 1, column 4");
  EXPECT_EQ(syntaxError("a: b: c\n"), "1:5: mapping values are not allowed in this context");
  EXPECT_EQ(syntaxError("a: *nowhere\n"), "1:4: found undefined alias");
  EXPECT_EQ(syntaxError("a: 1\n---\nb: 2\n"),
            "2:1: a second document (the configuration is one document)");
  EXPECT_EQ(syntaxError("---\na: 1\n---\n"), "parsed");
  // Bytes that are not UTF-8 are found by offset, and placed by counting.
  EXPECT_EQ(syntaxError("a: 1\nbb: c\xff\n"), "2:6: invalid leading UTF-8 octet (0xff)");
  EXPECT_EQ(syntaxError("a: 1\n\x01\n"), "2:1: control characters are not allowed (0x01)");
  EXPECT_EQ(syntaxError("\n\x01"), "2:1: control characters are not allowed (0x01)");
  EXPECT_EQ(syntaxError("\x01"), "1:1: control characters are not allowed (0x01)");
}

}  // namespace
}  // namespace Waymark
