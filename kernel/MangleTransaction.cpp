#include "kernel/MangleTransaction.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "kernel/MangleReadback.h"

namespace Kernel {

namespace {

const char* const kBuiltIn[] = {"PREROUTING", "INPUT", "FORWARD", "OUTPUT", "POSTROUTING"};
constexpr size_t kBuiltInCount = 5;
constexpr const char* kDispatch = MangleReadback::kDispatchChain;

std::string trimmed(const std::string& s) {
  const size_t a = s.find_first_not_of(' ');
  const size_t b = s.find_last_not_of(' ');
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// A rule position as iptables numbers them (from 1); 0 when `word` is none.
size_t position(const std::string& word) {
  if (word.empty() || word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return std::stoul(word);
}

}  // namespace

const MangleTransaction::Chain* MangleTransaction::chain(const std::string& name) const {
  const auto it =
      std::find_if(chains_.begin(), chains_.end(), [&](const Chain& c) { return c.first == name; });
  return it == chains_.end() ? nullptr : &*it;
}

MangleTransaction::Chain* MangleTransaction::chain(const std::string& name) {
  return const_cast<Chain*>(std::as_const(*this).chain(name));
}

const std::vector<std::string>* MangleTransaction::rules(const std::string& name) const {
  const Chain* c = chain(name);
  return c == nullptr ? nullptr : &c->second;
}

std::vector<std::string> MangleTransaction::userChains() const {
  std::vector<std::string> out;
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) out.push_back(chains_[i].first);
  return out;
}

bool MangleTransaction::add(const std::string& batch) {
  std::istringstream in(batch);
  for (std::string line; foldable_ && std::getline(in, line);) {
    if (line.empty() || line == "*mangle" || line == "COMMIT") continue;
    foldable_ = replay(line);
  }
  return foldable_;
}

bool MangleTransaction::replay(const std::string& line) {
  std::istringstream in(line);
  std::string op;
  std::string name;
  in >> op >> name;
  std::string rest;
  std::getline(in, rest);
  rest = trimmed(rest);
  if (!started_) {
    // Only a start that empties the table makes every chain known.
    if (op != "-F" || !name.empty()) return false;
    started_ = true;
    for (size_t i = 0; i < kBuiltInCount; ++i) chains_.push_back({kBuiltIn[i], {}});
    return true;
  }
  if (op == "-F" && name.empty()) {
    for (auto& c : chains_) c.second.clear();
    return true;
  }
  if (op == "-X" && name.empty()) {
    chains_.resize(kBuiltInCount);
    return true;
  }
  if (op == "-N") {
    if (name.empty() || chain(name) != nullptr) return false;
    chains_.push_back({name, {}});
    return true;
  }
  Chain* c = chain(name);
  if (c == nullptr) return false;
  auto& rules = c->second;
  if (op == "-X") {
    const auto index = static_cast<size_t>(c - chains_.data());
    if (index < kBuiltInCount || !rules.empty()) return false;
    chains_.erase(chains_.begin() + static_cast<long>(index));
    return true;
  }
  if (op == "-F") {
    rules.clear();
    return true;
  }
  if (op == "-A") {
    rules.push_back(rest);
    return true;
  }
  std::istringstream words(rest);
  std::string first;
  words >> first;
  std::string after;
  std::getline(words, after);
  after = trimmed(after);
  const size_t p = position(first);
  if (op == "-I") {
    if (p == 0) {
      rules.insert(rules.begin(), rest);
      return true;
    }
    if (p > rules.size() + 1) return false;
    rules.insert(rules.begin() + static_cast<long>(p - 1), after);
    return true;
  }
  if (op == "-R") {
    if (p == 0 || p > rules.size()) return false;
    rules[p - 1] = after;
    return true;
  }
  if (op == "-D") {
    if (p != 0 && after.empty()) {
      if (p > rules.size()) return false;
      rules.erase(rules.begin() + static_cast<long>(p - 1));
      return true;
    }
    const auto it = std::find(rules.begin(), rules.end(), rest);
    if (it == rules.end()) return false;
    rules.erase(it);
    return true;
  }
  return false;
}

std::string MangleTransaction::text(const std::set<std::string>& existing) const {
  std::string out = "*mangle\n-F\n";
  std::set<std::string> wanted;
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) wanted.insert(chains_[i].first);
  for (const auto& name : existing) {
    if (wanted.count(name) == 0) out += "-X " + name + "\n";
  }
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) {
    if (existing.count(chains_[i].first) == 0) out += "-N " + chains_[i].first + "\n";
  }
  for (const auto& [name, rules] : chains_) {
    for (const auto& rule : rules) out += "-A " + name + " " + rule + "\n";
  }
  return out + "COMMIT\n";
}

std::string MangleTransaction::textInPlace(const std::set<std::string>& ownChains,
                                           size_t jumps) const {
  std::string out = "*mangle\n";
  for (size_t i = 0; i < jumps; ++i) out += "-D PREROUTING -j " + std::string(kDispatch) + "\n";
  std::set<std::string> wanted;
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) wanted.insert(chains_[i].first);
  for (const auto& name : ownChains) out += "-F " + name + "\n";
  for (const auto& name : ownChains) {
    if (wanted.count(name) == 0) out += "-X " + name + "\n";
  }
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) {
    if (ownChains.count(chains_[i].first) == 0) out += "-N " + chains_[i].first + "\n";
  }
  // After the folded start the built-in chains hold only waymark's rules,
  // which go first, as the dispatch chain's set-up inserts them.
  for (size_t i = 0; i < kBuiltInCount; ++i) {
    const auto& [name, rules] = chains_[i];
    for (size_t r = 0; r < rules.size(); ++r) {
      out += "-I " + name + " " + std::to_string(r + 1) + " " + rules[r] + "\n";
    }
  }
  for (size_t i = kBuiltInCount; i < chains_.size(); ++i) {
    for (const auto& rule : chains_[i].second) out += "-A " + chains_[i].first + " " + rule + "\n";
  }
  return out + "COMMIT\n";
}

}  // namespace Kernel
