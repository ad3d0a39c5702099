// One parsed YAML document, for the configuration loader: libyaml's composed
// tree with the place of every node, so that the loader can name the line and
// column of whatever it refuses. libyaml, not yaml-cpp: on a 75,000-line
// configuration it parses in a tenth of the time, and a reload is mostly
// parsing. An alias shares its anchor's node, so repeating aliases cannot
// make a file grow in memory.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct yaml_document_s;
struct yaml_node_s;

namespace Waymark {

// A file that is not YAML. Line and column count from 1.
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

// A node of a YamlDocument, valid while the document lives. A default
// YamlNode stands for "not there" and is false. Empty, "~" and "null" in
// plain style are null, not scalars, as YAML means them.
class YamlNode {
 public:
  YamlNode() = default;
  YamlNode(yaml_document_s* document, yaml_node_s* node) : document_(document), node_(node) {}

  explicit operator bool() const { return node_ != nullptr; }
  bool isNull() const;
  bool isScalar() const;
  bool isMap() const;
  bool isSequence() const;

  // REQUIRES: isScalar()
  std::string scalar() const;
  // Where the node starts, from 1; 0 for a node that is not there.
  size_t line() const;
  size_t column() const;

  // The elements of a sequence; empty for anything else.
  std::vector<YamlNode> items() const;
  // The keys and values of a map, in the file's order, duplicates included;
  // empty for anything else.
  std::vector<std::pair<YamlNode, YamlNode>> pairs() const;

 private:
  yaml_document_s* document_ = nullptr;
  yaml_node_s* node_ = nullptr;
};

class YamlDocument {
 public:
  // Parses `text`, which must hold at most one document. Throws
  // YamlSyntaxError.
  explicit YamlDocument(const std::string& text);
  ~YamlDocument();
  YamlDocument(const YamlDocument&) = delete;
  YamlDocument& operator=(const YamlDocument&) = delete;

  // The document's top node; false for an empty file.
  YamlNode root() const;

 private:
  // Frees the nodes, then the document.
  struct Release {
    void operator()(yaml_document_s* document) const;
  };
  std::unique_ptr<yaml_document_s, Release> document_;
};

}  // namespace Waymark
