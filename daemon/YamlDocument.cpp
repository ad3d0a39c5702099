#include "daemon/YamlDocument.h"

#include <yaml.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace Waymark {

namespace {

// libyaml's parser, released whatever happens.
class Parser {
 public:
  explicit Parser(const std::string& text) {
    if (yaml_parser_initialize(&parser_) == 0) throw std::bad_alloc();
    yaml_parser_set_input_string(&parser_, reinterpret_cast<const unsigned char*>(text.data()),
                                 text.size());
  }
  ~Parser() { yaml_parser_delete(&parser_); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  yaml_parser_t* get() { return &parser_; }

 private:
  yaml_parser_t parser_{};
};

std::string orUnknown(const char* text) { return text != nullptr ? text : "unknown error"; }

// Bad bytes are reported by offset only: their line and column are counted
// here.
[[noreturn]] void raiseReaderError(const yaml_parser_t& p, const std::string& text) {
  const size_t offset = std::min(p.problem_offset, text.size());
  const size_t lineStart = offset == 0 ? 0 : text.rfind('\n', offset - 1);
  const size_t line =
      1 + static_cast<size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
  const size_t column =
      lineStart == 0 || lineStart == std::string::npos ? offset + 1 : offset - lineStart;
  std::string what = orUnknown(p.problem);
  if (p.problem_value >= 0) {
    char value[16];
    std::snprintf(value, sizeof value, " (0x%02x)", p.problem_value);
    what += value;
  }
  throw YamlSyntaxError(line, column, what);
}

[[noreturn]] void raise(const yaml_parser_t& p, const std::string& text) {
  if (p.error == YAML_MEMORY_ERROR) throw std::bad_alloc();
  if (p.error == YAML_READER_ERROR) raiseReaderError(p, text);
  std::string what = orUnknown(p.problem);
  if (p.context != nullptr) what += " " + std::string(p.context);
  const bool elsewhere =
      p.context_mark.line != p.problem_mark.line || p.context_mark.column != p.problem_mark.column;
  if (p.context != nullptr && elsewhere) {
    what += " that starts at line " + std::to_string(p.context_mark.line + 1) + ", column " +
            std::to_string(p.context_mark.column + 1);
  }
  throw YamlSyntaxError(p.problem_mark.line + 1, p.problem_mark.column + 1, what);
}

// A configuration is one document: a second one is more likely a mistake
// than something to ignore.
void refuseASecondDocument(Parser& parser, const std::string& text) {
  yaml_document_t next;
  if (yaml_parser_load(parser.get(), &next) == 0) raise(*parser.get(), text);
  // An empty one, as a trailing "---" makes, holds nothing to refuse.
  yaml_node_t* root = yaml_document_get_root_node(&next);
  const bool present = root != nullptr && !YamlNode(&next, root).isNull();
  const yaml_mark_t at = next.start_mark;
  yaml_document_delete(&next);
  if (present) {
    throw YamlSyntaxError(at.line + 1, at.column + 1,
                          "a second document (the configuration is one document)");
  }
}

bool plainNullText(const yaml_node_t& n) {
  const std::string_view v(reinterpret_cast<const char*>(n.data.scalar.value),
                           n.data.scalar.length);
  return v.empty() || v == "~" || v == "null" || v == "Null" || v == "NULL";
}

}  // namespace

bool YamlNode::isNull() const {
  return node_ != nullptr && node_->type == YAML_SCALAR_NODE &&
         node_->data.scalar.style == YAML_PLAIN_SCALAR_STYLE && plainNullText(*node_);
}

bool YamlNode::isScalar() const {
  return node_ != nullptr && node_->type == YAML_SCALAR_NODE && !isNull();
}

bool YamlNode::isMap() const { return node_ != nullptr && node_->type == YAML_MAPPING_NODE; }

bool YamlNode::isSequence() const { return node_ != nullptr && node_->type == YAML_SEQUENCE_NODE; }

std::string YamlNode::scalar() const {
  return std::string(reinterpret_cast<const char*>(node_->data.scalar.value),
                     node_->data.scalar.length);
}

size_t YamlNode::line() const { return node_ != nullptr ? node_->start_mark.line + 1 : 0; }

size_t YamlNode::column() const { return node_ != nullptr ? node_->start_mark.column + 1 : 0; }

std::vector<YamlNode> YamlNode::items() const {
  std::vector<YamlNode> out;
  if (!isSequence()) return out;
  const auto& items = node_->data.sequence.items;
  out.reserve(static_cast<size_t>(items.top - items.start));
  for (const yaml_node_item_t* i = items.start; i < items.top; ++i) {
    out.emplace_back(document_, yaml_document_get_node(document_, *i));
  }
  return out;
}

std::vector<std::pair<YamlNode, YamlNode>> YamlNode::pairs() const {
  std::vector<std::pair<YamlNode, YamlNode>> out;
  if (!isMap()) return out;
  const auto& pairs = node_->data.mapping.pairs;
  out.reserve(static_cast<size_t>(pairs.top - pairs.start));
  for (const yaml_node_pair_t* p = pairs.start; p < pairs.top; ++p) {
    out.emplace_back(YamlNode(document_, yaml_document_get_node(document_, p->key)),
                     YamlNode(document_, yaml_document_get_node(document_, p->value)));
  }
  return out;
}

// libyaml leaves a document it failed to load emptied, so releasing it is
// always safe.
void YamlDocument::Release::operator()(yaml_document_s* document) const {
  yaml_document_delete(document);
  std::default_delete<yaml_document_s>()(document);
}

YamlDocument::YamlDocument(const std::string& text)
    : document_(std::make_unique<yaml_document_t>().release()) {
  Parser parser(text);
  if (yaml_parser_load(parser.get(), document_.get()) == 0) raise(*parser.get(), text);
  if (yaml_document_get_root_node(document_.get()) != nullptr) refuseASecondDocument(parser, text);
}

YamlDocument::~YamlDocument() = default;

YamlNode YamlDocument::root() const {
  return YamlNode(document_.get(), yaml_document_get_root_node(document_.get()));
}

}  // namespace Waymark
