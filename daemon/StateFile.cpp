#include "daemon/StateFile.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

namespace Waymark {

void StateFile::load() {
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

bool StateFile::record(const std::set<uint32_t>& priorities, const std::set<uint32_t>& tables) {
  const size_t before = priorities_.size() + tables_.size();
  priorities_.insert(priorities.begin(), priorities.end());
  tables_.insert(tables.begin(), tables.end());
  return priorities_.size() + tables_.size() != before;
}

void StateFile::clear() {
  priorities_.clear();
  tables_.clear();
}

bool StateFile::save(std::string* error) const {
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
  return true;
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
