#include "daemon/StateFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace Waymark {

void StateFile::load() {
  loadJournal();
  std::ifstream in(path_);
  if (!in) return;
  try {
    const auto j = nlohmann::json::parse(in);
    for (const auto& p : j.value("priorities", nlohmann::json::array())) {
      priorities_.insert(p.get<uint32_t>());
    }
    for (const auto& t : j.value("tables", nlohmann::json::array()))
      tables_.insert(t.get<uint32_t>());
  } catch (const nlohmann::json::exception&) {
    // A damaged file records nothing usable; the daemon starts from what it
    // finds in the kernel.
  }
}

// A line that does not read is skipped. Each line is whole: the daemon
// writes it in one call and runs the command only after that call returned.
void StateFile::loadJournal() {
  std::ifstream in(journalPath());
  std::string kind;
  unsigned long number = 0;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    if (!(words >> kind >> number) || number > 0xffffffffu) continue;
    if (kind == "priority") priorities_.insert(static_cast<uint32_t>(number));
    if (kind == "table") tables_.insert(static_cast<uint32_t>(number));
  }
}

bool StateFile::journal(const std::set<uint32_t>& priorities, const std::set<uint32_t>& tables,
                        std::string* error) {
  std::string lines;
  for (const uint32_t p : priorities) {
    if (priorities_.insert(p).second) lines += "priority " + std::to_string(p) + "\n";
  }
  for (const uint32_t t : tables) {
    if (tables_.insert(t).second) lines += "table " + std::to_string(t) + "\n";
  }
  if (lines.empty()) return true;
  if (!journal_.valid()) {
    journal_ = Platform::FileDescriptor(
        ::open(journalPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  }
  // One write of a few lines with O_APPEND: whole or, if the daemon dies
  // inside it, cut short.
  if (!journal_.valid() ||
      ::write(journal_.get(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size())) {
    *error = "cannot write " + journalPath();
    return false;
  }
  return true;
}

void StateFile::clear() {
  priorities_.clear();
  tables_.clear();
}

bool StateFile::save(std::string* error) {
  const std::filesystem::path target(path_);
  std::error_code ec;
  if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path(), ec);
  const std::string temporary = path_ + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << nlohmann::json{{"priorities", priorities_}, {"tables", tables_}}.dump() << "\n";
    if (!out) {
      *error = "cannot write " + temporary;
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
    *error = "cannot rename " + temporary + " to " + path_;
    return false;
  }
  // The file now holds everything the journal did.
  journal_.reset();
  std::remove(journalPath().c_str());
  return true;
}

void StateFile::remove() {
  journal_.reset();
  std::remove(path_.c_str());
  std::remove(journalPath().c_str());
}

std::vector<std::string> StateFile::cleanupCommands() const {
  std::vector<std::string> out;
  for (const uint32_t p : priorities_) {
    out.push_back("ip rule del priority " + std::to_string(p));
    out.push_back("ip -6 rule del priority " + std::to_string(p));
  }
  for (const uint32_t t : tables_) {
    out.push_back("ip route flush table " + std::to_string(t));
    out.push_back("ip -6 route flush table " + std::to_string(t));
  }
  return out;
}

}  // namespace Waymark
