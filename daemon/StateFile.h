// What waymarkd has put into the kernel's policy routing, kept in a file
// (default /run/waymark/state.json, written atomically): every rule priority
// and routing table it has used since it started.
//
// Deleting a nexthop cannot remove its route (the route-delete command names
// no route the kernel accepts), so a restart would meet "File exists" when it
// allocates the same tables again. Before the plug-in starts, the daemon
// therefore deletes the recorded rules and flushes the recorded tables, in
// both families; --cleanup does the same.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace Waymark {

class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // Reads what an earlier run recorded; nothing when there is no file.
  void load();
  // Adds what is in use now; true when anything was new.
  bool record(const std::set<uint32_t>& priorities, const std::set<uint32_t>& tables);
  // Writes the file (to a temporary file, then renamed).
  bool save(std::string* error) const;
  void clear();

  const std::set<uint32_t>& priorities() const { return priorities_; }
  const std::set<uint32_t>& tables() const { return tables_; }
  // The commands that remove what is recorded, both families.
  std::vector<std::string> cleanupCommands() const;

 private:
  std::string path_;
  std::set<uint32_t> priorities_;
  std::set<uint32_t> tables_;
};

}  // namespace Waymark
