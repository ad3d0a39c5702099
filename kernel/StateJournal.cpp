#include "kernel/StateJournal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace Kernel {

namespace {

// Past this many lines beyond twice what is held, the snapshot is rewritten.
constexpr size_t kJournalSlack = 64;

int familyNumber(bool v6) { return v6 ? 6 : 4; }

std::string ruleText(const PolicyRule& r) {
  return "rule " + std::to_string(familyNumber(r.v6)) + " " + std::to_string(r.priority) + " " +
         std::to_string(r.mark) + " " + std::to_string(r.table);
}

std::string nexthopText(const Velnet::IpGenAddr& nexthop) {
  return nexthop.isUnset() ? "" : " " + nexthop.stringValue();
}

Velnet::IpGenAddr nexthopOfText(const std::string& text) {
  return Velnet::IpGenAddr::tryParse(text).value_or(Velnet::IpGenAddr());
}

std::string tableText(const RouteTableId& t) {
  return "table " + std::to_string(familyNumber(t.v6)) + " " + std::to_string(t.table);
}

bool current(bool c) { return c; }
template <typename Held>
bool current(const Held& h) {
  return h.current;
}

template <typename Key, typename Value>
std::vector<Key> keys(const std::map<Key, Value>& held, bool onlyPrevious) {
  std::vector<Key> out;
  for (const auto& [key, value] : held) {
    if (!onlyPrevious || !current(value)) out.push_back(key);
  }
  return out;
}

}  // namespace

void StateJournal::load() {
  std::ifstream in(path_);
  if (in) {
    try {
      const auto j = nlohmann::json::parse(in);
      for (const auto& r : j.value("rules", nlohmann::json::array())) {
        const PolicyRule rule{r.at(0).get<int>() == 6, r.at(1).get<uint32_t>(),
                              r.at(2).get<uint32_t>(), r.at(3).get<uint32_t>()};
        rules_[rule] = {false, nexthopOfText(r.size() > 4 ? r.at(4).get<std::string>() : "")};
      }
      for (const auto& t : j.value("tables", nlohmann::json::array())) {
        tables_[{t.at(0).get<int>() == 6, t.at(1).get<uint32_t>()}] = false;
      }
    } catch (const nlohmann::json::exception&) {
      // A damaged snapshot records nothing usable; the journal may still.
    }
  }
  std::ifstream journal(journalPath());
  for (std::string line; std::getline(journal, line);) {
    replay(line);
    ++journalLines_;
  }
}

// A line that does not read is skipped: each is written whole in one call,
// so only the last one can be cut short, by a daemon killed inside it.
void StateJournal::replay(const std::string& line) {
  std::istringstream words(line);
  std::string what;
  int family = 0;
  if (!(words >> what >> family) || (family != 4 && family != 6)) return;
  const bool v6 = family == 6;
  if (what == "+rule" || what == "-rule") {
    PolicyRule r{v6, 0, 0, 0};
    if (!(words >> r.priority >> r.mark >> r.table)) return;
    std::string nexthop;
    words >> nexthop;
    if (what[0] == '+') {
      rules_[r] = {false, nexthopOfText(nexthop)};
    } else {
      rules_.erase(r);
    }
  } else if (what == "+table" || what == "-table") {
    RouteTableId t{v6, 0};
    if (!(words >> t.table)) return;
    if (what[0] == '+') {
      tables_[t] = false;
    } else {
      tables_.erase(t);
    }
  }
}

void StateJournal::ruleHeld(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop) {
  const auto [it, added] = rules_.insert({rule, {true, nexthop}});
  it->second.current = true;
  if (added || it->second.nexthop != nexthop) append("+" + ruleText(rule) + nexthopText(nexthop));
  it->second.nexthop = nexthop;
}

Velnet::IpGenAddr StateJournal::nexthopOf(const PolicyRule& rule) const {
  const auto it = rules_.find(rule);
  return it == rules_.end() ? Velnet::IpGenAddr() : it->second.nexthop;
}

void StateJournal::ruleReleased(const PolicyRule& rule) {
  if (rules_.erase(rule) != 0) append("-" + ruleText(rule));
}

void StateJournal::tableHeld(const RouteTableId& table) {
  const auto [it, added] = tables_.insert({table, true});
  it->second = true;
  if (added) append("+" + tableText(table));
}

void StateJournal::tableReleased(const RouteTableId& table) {
  if (tables_.erase(table) != 0) append("-" + tableText(table));
}

std::vector<PolicyRule> StateJournal::leftoverRules() const { return keys(rules_, true); }
std::vector<RouteTableId> StateJournal::leftoverTables() const { return keys(tables_, true); }
std::vector<PolicyRule> StateJournal::rules() const { return keys(rules_, false); }
std::vector<RouteTableId> StateJournal::tables() const { return keys(tables_, false); }

void StateJournal::append(const std::string& line) {
  if (!journal_.valid()) {
    std::error_code ec;
    const std::filesystem::path parent = std::filesystem::path(path_).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    journal_ = Kernel::FileDescriptor(
        ::open(journalPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  }
  const std::string text = line + "\n";
  if (!journal_.valid() ||
      ::write(journal_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    error_ = "cannot write " + journalPath();
    return;
  }
  ++journalLines_;
  if (journalLines_ > kJournalSlack + 2 * size()) compact();
}

bool StateJournal::compact() {
  nlohmann::json rules = nlohmann::json::array();
  for (const auto& [r, held] : rules_) {
    rules.push_back({familyNumber(r.v6), r.priority, r.mark, r.table,
                     held.nexthop.isUnset() ? "" : held.nexthop.stringValue()});
  }
  nlohmann::json tables = nlohmann::json::array();
  for (const auto& [t, current] : tables_) tables.push_back({familyNumber(t.v6), t.table});
  const std::string temporary = path_ + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << nlohmann::json{{"rules", rules}, {"tables", tables}}.dump() << "\n";
    if (!out) {
      error_ = "cannot write " + temporary;
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
    error_ = "cannot rename " + temporary + " to " + path_;
    return false;
  }
  // The snapshot now holds everything the journal said; replayed over it,
  // the old lines would change nothing, so a crash before this is harmless.
  if (journal_.valid() && ftruncate(journal_.get(), 0) != 0) {
    error_ = "cannot empty " + journalPath();
    return false;
  }
  journalLines_ = 0;
  return true;
}

void StateJournal::remove() {
  journal_.reset();
  rules_.clear();
  tables_.clear();
  journalLines_ = 0;
  std::remove(path_.c_str());
  std::remove(journalPath().c_str());
}

}  // namespace Kernel
