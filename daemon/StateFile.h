// What waymarkd has put into the kernel's policy routing, kept in a file
// (default /run/waymark/state.json, written atomically): every rule priority
// and routing table it has used since it started.
//
// Numbers are recorded before the commands that use them run, one at a time
// and thousands of times in a large start. Rewriting the whole file for each
// made recording quadratic: 0.4 s of 0.5 s for 1,000 nexthops. So new numbers
// are appended, a line each, to a journal beside the file (FILE.journal),
// whose descriptor stays open; the file itself is rewritten whole, and the
// journal emptied, only when the daemon saves it.
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

#include "platform/FileDescriptor.h"

namespace Waymark {

class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  std::string journalPath() const { return path_ + ".journal"; }
  // Reads what an earlier run recorded, the file and then its journal;
  // nothing when there are neither.
  void load();
  // Adds what is in use now; whatever is new reaches the journal before this
  // returns. False, with `error`, when it could not be written.
  bool journal(const std::set<uint32_t>& priorities, const std::set<uint32_t>& tables,
               std::string* error);
  // Writes the file (to a temporary file, then renamed) and empties the
  // journal.
  bool save(std::string* error);
  void clear();
  // Deletes the file and its journal.
  void remove();

  const std::set<uint32_t>& priorities() const { return priorities_; }
  const std::set<uint32_t>& tables() const { return tables_; }
  // The commands that remove what is recorded, both families.
  std::vector<std::string> cleanupCommands() const;

 private:
  void loadJournal();

  std::string path_;
  Platform::FileDescriptor journal_;
  std::set<uint32_t> priorities_;
  std::set<uint32_t> tables_;
};

}  // namespace Waymark
