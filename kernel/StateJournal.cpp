#include "kernel/StateJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

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

// Why allocation could never have produced the rule, or "": priorities
// stay in 1-32765 (the kernel's main and default rules follow), tables skip
// 0 and 253-255 (the kernel's own: unspecified, default, main, local) and
// stay in 16 bits, marks are never 0 or the one mark never handed out.
std::string implausible(const PolicyRule& r) {
  if (r.priority < 1 || r.priority > 32765) return "priority " + std::to_string(r.priority);
  if (r.mark == 0 || r.mark == 13429) return "mark " + std::to_string(r.mark);
  if (r.table == 0 || (r.table >= 253 && r.table <= 255) || r.table > 65535) {
    return "table " + std::to_string(r.table);
  }
  return "";
}

std::string implausible(const RouteTableId& t) {
  if (t.table == 0 || (t.table >= 253 && t.table <= 255) || t.table > 65535) {
    return "table " + std::to_string(t.table);
  }
  return "";
}

// Writes all of `text` to `fd`; false on any failure (a full disk says so
// here, as ENOSPC).
bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string recordText(const PolicyRule& r) { return ruleText(r); }
std::string recordText(const RouteTableId& t) { return tableText(t); }

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
  loadSnapshot();
  std::ifstream journal(journalPath());
  for (std::string line; std::getline(journal, line);) {
    replay(line);
    ++journalLines_;
  }
}

namespace {

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

}  // namespace

StateJournal::FileMark StateJournal::markOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return {};
  return {st.st_ino, st.st_size, st.st_ctim.tv_sec * 1'000'000'000LL + st.st_ctim.tv_nsec};
}

void StateJournal::loadSnapshot() {
  std::ifstream in(path_);
  if (!in) return;
  snapshot_ = markOf(path_);
  // Read whole first: what a damaged file held is not known, so none of it
  // counts as the previous run's (its numbers stay another tool's).
  std::map<PolicyRule, HeldRule> rules;
  std::map<RouteTableId, bool> tables;
  try {
    const auto j = nlohmann::json::parse(in);
    for (const auto& r : j.at("rules")) {
      const PolicyRule rule{r.at(0).get<int>() == 6, r.at(1).get<uint32_t>(),
                            r.at(2).get<uint32_t>(), r.at(3).get<uint32_t>()};
      if (refused(rule, path_)) continue;
      rules[rule] = {false, nexthopOfText(r.size() > 4 ? r.at(4).get<std::string>() : "")};
    }
    for (const auto& t : j.at("tables")) {
      const RouteTableId table{t.at(0).get<int>() == 6, t.at(1).get<uint32_t>()};
      if (refused(table, path_)) continue;
      tables[table] = false;
    }
  } catch (const nlohmann::json::exception& e) {
    problems_.push_back(path_ + " is damaged (" + e.what() +
                        "): the previous run's rules and tables it named are not known; only "
                        "what the kernel shows to be waymark's is taken as that run's, the rest "
                        "is left alone as another tool's");
    snapshotDamaged_ = true;
    return;
  }
  rules_ = std::move(rules);
  tables_ = std::move(tables);
  snapshotRead_ = true;
}

bool StateJournal::previousHeld(const PolicyRule& rule) {
  if (holds(rule) || refused(rule, "the kernel")) return false;
  if (!append("+" + ruleText(rule))) return false;
  rules_[rule] = {false, Velnet::IpGenAddr()};
  return true;
}

bool StateJournal::previousHeld(const RouteTableId& table) {
  if (holds(table) || refused(table, "the kernel")) return false;
  if (!append("+" + tableText(table))) return false;
  tables_[table] = false;
  return true;
}

template <typename Record>
bool StateJournal::refused(const Record& record, const std::string& where) {
  const std::string why = implausible(record);
  if (why.empty()) return false;
  problems_.push_back("ignored " + recordText(record) + " in " + where + ": " + why +
                      " is a number waymark never hands out; left alone");
  return true;
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
    if (refused(r, journalPath())) return;
    if (what[0] == '+') {
      rules_[r] = {false, nexthopOfText(nexthop)};
    } else {
      rules_.erase(r);
    }
  } else if (what == "+table" || what == "-table") {
    RouteTableId t{v6, 0};
    if (!(words >> t.table)) return;
    if (refused(t, journalPath())) return;
    if (what[0] == '+') {
      tables_[t] = false;
    } else {
      tables_.erase(t);
    }
  }
}

bool StateJournal::ruleHeld(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop) {
  const auto it = rules_.find(rule);
  if (it != rules_.end() && it->second.nexthop == nexthop) {
    it->second.current = true;
    return true;
  }
  if (!append("+" + ruleText(rule) + nexthopText(nexthop))) return false;
  rules_[rule] = {true, nexthop};
  return true;
}

Velnet::IpGenAddr StateJournal::nexthopOf(const PolicyRule& rule) const {
  const auto it = rules_.find(rule);
  return it == rules_.end() ? Velnet::IpGenAddr() : it->second.nexthop;
}

void StateJournal::ruleReleased(const PolicyRule& rule) {
  if (rules_.erase(rule) != 0) append("-" + ruleText(rule));
}

bool StateJournal::tableHeld(const RouteTableId& table) {
  const auto it = tables_.find(table);
  if (it != tables_.end()) {
    it->second = true;
    return true;
  }
  if (!append("+" + tableText(table))) return false;
  tables_[table] = true;
  return true;
}

void StateJournal::tableReleased(const RouteTableId& table) {
  if (tables_.erase(table) != 0) append("-" + tableText(table));
}

std::vector<PolicyRule> StateJournal::leftoverRules() const { return keys(rules_, true); }
std::vector<RouteTableId> StateJournal::leftoverTables() const { return keys(tables_, true); }
std::vector<PolicyRule> StateJournal::rules() const { return keys(rules_, false); }
std::vector<RouteTableId> StateJournal::tables() const { return keys(tables_, false); }

bool StateJournal::append(const std::string& line) {
  if (!journal_.valid()) {
    std::error_code ec;
    const std::filesystem::path parent = std::filesystem::path(path_).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    journal_ = Kernel::FileDescriptor(
        ::open(journalPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    // One left by a run under another umask, or by hand, is made private.
    if (journal_.valid()) fchmod(journal_.get(), 0600);
  }
  const off_t before = journal_.valid() ? lseek(journal_.get(), 0, SEEK_END) : -1;
  // Not synced: the journal records what the running kernel holds, which a
  // power loss takes away too, while a daemon killed after the write leaves
  // the line in the page cache for the next run.
  if (!journal_.valid() || !writeAll(journal_.get(), line + "\n")) {
    error_ = "cannot write " + journalPath() + ": " + std::strerror(errno);
    // A line cut short would hide the next one: what was written of it goes.
    if (before >= 0 && ftruncate(journal_.get(), before) != 0) journal_.reset();
    return false;
  }
  error_.clear();
  ++journalLines_;
  if (journalLines_ > kJournalSlack + 2 * size()) compact();
  return true;
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
  // The snapshot in place is replaced only by one written whole and durably.
  Kernel::FileDescriptor out(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  // A file system may report a failed write only when the file is closed.
  const bool written =
      out.valid() &&
      writeAll(out.get(), nlohmann::json{{"rules", rules}, {"tables", tables}}.dump() + "\n") &&
      fsync(out.get()) == 0 && ::close(out.release()) == 0;
  if (!written || std::rename(temporary.c_str(), path_.c_str()) != 0) {
    error_ = "cannot write " + temporary + ": " + std::strerror(errno);
    std::remove(temporary.c_str());
    return false;
  }
  syncDirectory();
  snapshot_ = markOf(path_);
  // The snapshot now holds everything the journal said; replayed over it,
  // the old lines would change nothing, so a crash before this is harmless.
  if (journal_.valid() && ftruncate(journal_.get(), 0) != 0) {
    error_ = "cannot empty " + journalPath();
    return false;
  }
  // Without a journal of this run's, whatever is at its path is older than
  // the snapshot, or not the daemon's.
  if (!journal_.valid()) std::remove(journalPath().c_str());
  journalLines_ = 0;
  error_.clear();
  return true;
}

void StateJournal::syncDirectory() const {
  const std::filesystem::path parent = std::filesystem::path(path_).parent_path();
  const Kernel::FileDescriptor dir(
      ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.valid()) fsync(dir.get());
}

bool StateJournal::restoreIfGone() {
  struct stat open {};
  const bool journalGone = journal_.valid() && fstat(journal_.get(), &open) == 0 &&
                           inodeOf(journalPath()) != open.st_ino;
  const bool snapshotGone = snapshot_ != FileMark() && markOf(path_) != snapshot_;
  if (!journalGone && !snapshotGone) return false;
  // The next line goes to a journal at the path again, after a snapshot of
  // everything held.
  journal_.reset();
  return compact();
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
