// One parsed YAML document, for the configuration loader: a tree of nodes
// with the place of every node, so that the loader can name the line and
// column of whatever it refuses.
//
// libyaml reads the text, not yaml-cpp: on a 75,000-line configuration it
// parses in a tenth of the time, and a reload is mostly parsing. The tree is
// composed here from libyaml's events rather than by libyaml's own loader,
// for two limits that a file from outside needs: nesting deeper than
// kMaxDepth is refused (libyaml's scanner slows with every open level, so a
// file of 200,000 brackets would hold the daemon for minutes), and an alias
// shares its anchor's finished node (repeating aliases cannot make a file
// grow in memory, and a node cannot contain itself).
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Waymark {

// A file that is not YAML, or not one this reader takes. Line and column
// count from 1.
class YamlSyntaxError : public std::runtime_error {
 public:
  YamlSyntaxError(size_t line, size_t column, const std::string& what)
      : std::runtime_error(what), line_(line), column_(column) {}
  size_t line() const { return line_; }
  size_t column() const { return column_; }

 private:
  size_t line_;
  size_t column_;
};

struct YamlNodeData;

// A node of a YamlDocument, valid while the document lives. A default
// YamlNode stands for "not there" and is false. Empty, "~" and "null" in
// plain style are null, not scalars, as YAML means them.
class YamlNode {
 public:
  YamlNode() = default;
  explicit YamlNode(const YamlNodeData* node) : node_(node) {}

  explicit operator bool() const { return node_ != nullptr; }
  bool isNull() const;
  bool isScalar() const;
  bool isMap() const;
  bool isSequence() const;

  // REQUIRES: isScalar()
  const std::string& scalar() const;
  // Where the node starts, from 1; 0 for a node that is not there.
  size_t line() const;
  size_t column() const;

  // The elements of a sequence; empty for anything else.
  std::vector<YamlNode> items() const;
  // The keys and values of a map, in the file's order, duplicates included;
  // empty for anything else.
  std::vector<std::pair<YamlNode, YamlNode>> pairs() const;

 private:
  const YamlNodeData* node_ = nullptr;
};

class YamlDocument {
 public:
  // Collections open inside each other at most; a configuration needs six.
  static constexpr size_t kMaxDepth = 64;

  // Parses `text`, which must hold at most one document with content.
  // Throws YamlSyntaxError.
  explicit YamlDocument(const std::string& text);
  ~YamlDocument();
  YamlDocument(const YamlDocument&) = delete;
  YamlDocument& operator=(const YamlDocument&) = delete;

  // The document's top node; false for an empty file.
  YamlNode root() const { return YamlNode(root_); }

 private:
  struct Nodes;
  std::unique_ptr<Nodes> nodes_;
  const YamlNodeData* root_ = nullptr;
};

}  // namespace Waymark
