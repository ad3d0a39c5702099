#include "config/YamlDocument.h"

#include <yaml.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <string_view>

namespace Waymark {

struct YamlNodeData {
  enum class Kind { scalar, sequence, map };
  Kind kind = Kind::scalar;
  bool null = false;
  std::string text;
  size_t line = 0;
  size_t column = 0;
  std::vector<const YamlNodeData*> items;
  std::vector<std::pair<const YamlNodeData*, const YamlNodeData*>> pairs;
};

struct YamlDocument::Nodes {
  // A deque, so that nodes stay where they are as more are added.
  std::deque<YamlNodeData> all;
};

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
  const size_t newline = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
  const size_t line =
      1 + static_cast<size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
  const size_t column = newline == std::string::npos ? offset + 1 : offset - newline;
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

// One event of libyaml's, released whatever happens.
class Event {
 public:
  Event() = default;
  ~Event() { yaml_event_delete(&event_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  yaml_event_t* get() { return &event_; }
  const yaml_event_t& operator*() const { return event_; }

 private:
  yaml_event_t event_{};
};

bool plainNull(const yaml_event_t& e) {
  if (e.data.scalar.style != YAML_PLAIN_SCALAR_STYLE) return false;
  const std::string_view v(reinterpret_cast<const char*>(e.data.scalar.value),
                           e.data.scalar.length);
  return v.empty() || v == "~" || v == "null" || v == "Null" || v == "NULL";
}

std::string anchorOf(const yaml_char_t* anchor) {
  return anchor != nullptr ? reinterpret_cast<const char*>(anchor) : "";
}

// Builds the tree of the first document from libyaml's events.
class Composer {
 public:
  Composer(std::deque<YamlNodeData>& nodes, const std::string& text) : nodes_(nodes), text_(text) {}

  // The first document's top node, or null when the stream has none.
  const YamlNodeData* compose(yaml_parser_t* parser) {
    for (;;) {
      Event event;
      if (yaml_parser_parse(parser, event.get()) == 0) raise(*parser, text_);
      const yaml_event_t& e = *event;
      if (e.type == YAML_STREAM_END_EVENT) return first_;
      if (e.type == YAML_DOCUMENT_START_EVENT) startDocument(e);
      if (e.type == YAML_DOCUMENT_END_EVENT) endDocument();
      if (e.type == YAML_ALIAS_EVENT) attach(alias(e));
      if (e.type == YAML_SCALAR_EVENT) scalar(e);
      if (e.type == YAML_SEQUENCE_START_EVENT) open(e, YamlNodeData::Kind::sequence);
      if (e.type == YAML_MAPPING_START_EVENT) open(e, YamlNodeData::Kind::map);
      if (e.type == YAML_SEQUENCE_END_EVENT || e.type == YAML_MAPPING_END_EVENT) close();
    }
  }

 private:
  // A collection being read: its node, a map's key waiting for its value,
  // and the anchor that names it once it is complete.
  struct Open {
    YamlNodeData* node;
    const YamlNodeData* key;
    std::string anchor;
  };

  [[noreturn]] void fail(const yaml_mark_t& at, const std::string& what) const {
    throw YamlSyntaxError(at.line + 1, at.column + 1, what);
  }

  YamlNodeData& add(const yaml_event_t& e, YamlNodeData::Kind kind) {
    YamlNodeData& node = nodes_.emplace_back();
    node.kind = kind;
    node.line = e.start_mark.line + 1;
    node.column = e.start_mark.column + 1;
    return node;
  }

  void attach(const YamlNodeData* node) {
    if (open_.empty()) {
      top_ = node;
      return;
    }
    Open& parent = open_.back();
    if (parent.node->kind == YamlNodeData::Kind::sequence) {
      parent.node->items.push_back(node);
    } else if (parent.key == nullptr) {
      parent.key = node;
    } else {
      parent.node->pairs.emplace_back(parent.key, node);
      parent.key = nullptr;
    }
  }

  void startDocument(const yaml_event_t& e) {
    documentStart_ = e.start_mark;
    top_ = nullptr;
  }

  // A configuration is one document: a second one with content is more
  // likely a mistake than something to ignore. An empty one, as a trailing
  // "---" makes, holds nothing to refuse.
  void endDocument() {
    ++documents_;
    if (documents_ == 1) {
      first_ = top_;
    } else if (top_ != nullptr && !top_->null) {
      fail(documentStart_, "a second document (the configuration is one document)");
    }
  }

  const YamlNodeData* alias(const yaml_event_t& e) const {
    const auto found = anchors_.find(anchorOf(e.data.alias.anchor));
    if (found == anchors_.end()) fail(e.start_mark, "found undefined alias");
    return found->second;
  }

  void scalar(const yaml_event_t& e) {
    YamlNodeData& node = add(e, YamlNodeData::Kind::scalar);
    node.text.assign(reinterpret_cast<const char*>(e.data.scalar.value), e.data.scalar.length);
    node.null = plainNull(e);
    attach(&node);
    if (e.data.scalar.anchor != nullptr) anchors_[anchorOf(e.data.scalar.anchor)] = &node;
  }

  void open(const yaml_event_t& e, YamlNodeData::Kind kind) {
    if (open_.size() == YamlDocument::kMaxDepth) {
      fail(e.start_mark,
           "nesting deeper than " + std::to_string(YamlDocument::kMaxDepth) + " levels");
    }
    YamlNodeData& node = add(e, kind);
    attach(&node);
    const yaml_char_t* anchor = kind == YamlNodeData::Kind::sequence ? e.data.sequence_start.anchor
                                                                     : e.data.mapping_start.anchor;
    open_.push_back(Open{&node, nullptr, anchorOf(anchor)});
  }

  void close() {
    const Open done = std::move(open_.back());
    open_.pop_back();
    if (!done.anchor.empty()) anchors_[done.anchor] = done.node;
  }

  std::deque<YamlNodeData>& nodes_;
  const std::string& text_;
  std::vector<Open> open_;
  std::map<std::string, const YamlNodeData*> anchors_;
  const YamlNodeData* top_ = nullptr;
  const YamlNodeData* first_ = nullptr;
  yaml_mark_t documentStart_{};
  int documents_ = 0;
};

}  // namespace

bool YamlNode::isNull() const { return node_ != nullptr && node_->null; }

bool YamlNode::isScalar() const {
  return node_ != nullptr && node_->kind == YamlNodeData::Kind::scalar && !node_->null;
}

bool YamlNode::isMap() const { return node_ != nullptr && node_->kind == YamlNodeData::Kind::map; }

bool YamlNode::isSequence() const {
  return node_ != nullptr && node_->kind == YamlNodeData::Kind::sequence;
}

const std::string& YamlNode::scalar() const { return node_->text; }

size_t YamlNode::line() const { return node_ != nullptr ? node_->line : 0; }

size_t YamlNode::column() const { return node_ != nullptr ? node_->column : 0; }

std::vector<YamlNode> YamlNode::items() const {
  std::vector<YamlNode> out;
  if (!isSequence()) return out;
  out.reserve(node_->items.size());
  for (const YamlNodeData* item : node_->items) out.emplace_back(item);
  return out;
}

std::vector<std::pair<YamlNode, YamlNode>> YamlNode::pairs() const {
  std::vector<std::pair<YamlNode, YamlNode>> out;
  if (!isMap()) return out;
  out.reserve(node_->pairs.size());
  for (const auto& [key, value] : node_->pairs) out.emplace_back(YamlNode(key), YamlNode(value));
  return out;
}

YamlDocument::YamlDocument(const std::string& text) : nodes_(std::make_unique<Nodes>()) {
  Parser parser(text);
  root_ = Composer(nodes_->all, text).compose(parser.get());
}

YamlDocument::~YamlDocument() = default;

}  // namespace Waymark
