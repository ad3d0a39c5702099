// A model of the mangle table that replays iptables-restore lines (-N, -X,
// -F, -I, -A, -R, -D) the way the kernel would, so that tests can state what
// a chain holds after any sequence of batches.
#pragma once

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace waymark::test {

class MangleModel {
 public:
  using Rules = std::vector<std::string>;

  void apply(const std::vector<std::string>& lines) {
    for (const auto& line : lines) applyLine(line);
  }
  // The chain's rules (their match and target, as written), in order.
  const Rules& chain(const std::string& name) const {
    static const Rules kNone;
    const auto it = chains_.find(name);
    return it == chains_.end() ? kNone : it->second;
  }
  bool hasChain(const std::string& name) const { return chains_.count(name) != 0; }

 private:
  static std::string trim(const std::string& s) {
    const size_t a = s.find_first_not_of(' ');
    const size_t b = s.find_last_not_of(' ');
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
  }
  void applyLine(const std::string& line) {
    std::istringstream in(line);
    std::string op;
    std::string name;
    in >> op >> name;
    std::string rest;
    std::getline(in, rest);
    rest = trim(rest);
    if (op == "-N") {
      chains_[name];
    } else if (op == "-X") {
      name.empty() ? eraseUserChains() : void(chains_.erase(name));
    } else if (op == "-F") {
      if (name.empty()) {
        for (auto& [n, rules] : chains_) rules.clear();
      } else {
        chains_[name].clear();
      }
    } else if (op == "-I") {
      chains_[name].insert(chains_[name].begin(), rest);
    } else if (op == "-A") {
      chains_[name].push_back(rest);
    } else if (op == "-R") {
      std::istringstream r(rest);
      size_t position = 0;
      r >> position;
      std::string rule;
      std::getline(r, rule);
      chains_[name].at(position - 1) = trim(rule);
    } else if (op == "-D") {
      auto& rules = chains_[name];
      rules.erase(std::find(rules.begin(), rules.end(), rest));
    }
  }
  void eraseUserChains() {
    for (auto it = chains_.begin(); it != chains_.end();) {
      it = it->first == "PREROUTING" ? std::next(it) : chains_.erase(it);
    }
  }

  std::map<std::string, Rules> chains_;
};

}  // namespace waymark::test
