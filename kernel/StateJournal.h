// Kernel::StateJournal: what waymarkd holds in the kernel's policy routing
// now, kept on disk so that the next run knows what this one left: every
// rule (family, priority, mark, table) and every table it has put a route
// in, and nothing it has released since.
//
// The file (default /run/waymark/state.json) is a snapshot; each change
// after it is appended as a line to a journal beside it (FILE.journal),
// through a descriptor that stays open, so that recording costs one short
// write and a large start stays linear. An addition is written before the
// command that makes it true runs, so a daemon killed at any point leaves a
// record of at least what is in the kernel; a release is written after the
// kernel let go. When the journal has grown well past what is held, the
// snapshot is rewritten (to a temporary file, then renamed) and the journal
// emptied, so the record stays as small as what is in use.
//
// Each rule is recorded with the nexthop it routes to, so that a restart can
// give that nexthop the same numbers again. What a file held when it was
// loaded belongs to the previous run until this run takes the same rule or
// table again; what is left of it once this run is programmed are leftovers,
// for the daemon to remove.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/FileDescriptor.h"
#include "kernel/KernelRouting.h"
#include "net/IpGenAddr.h"

namespace Kernel {

class StateJournal {
 public:
  explicit StateJournal(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  std::string journalPath() const { return path_ + ".journal"; }

  // Reads the snapshot and replays the journal over it; all of it is the
  // previous run's. A missing file records nothing; a damaged snapshot, and
  // any rule or table with a number waymark never hands out, record nothing
  // either, and say so in problems(): those numbers are left alone as
  // another tool's, never taken for free and never deleted.
  void load();

  // Records an addition before the command that makes it true runs; false
  // (nothing recorded, error() says why) when it cannot be written: the
  // command must then not run.
  bool ruleHeld(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop);
  void ruleReleased(const PolicyRule& rule);
  bool tableHeld(const RouteTableId& table);
  void tableReleased(const RouteTableId& table);

  // Records a rule or table of the previous run that the file does not name
  // (damaged or lost) but that is known to be waymark's by other means;
  // false when it is held already, implausible, or cannot be written.
  bool previousHeld(const PolicyRule& rule);
  bool previousHeld(const RouteTableId& table);
  // Whether load() read a snapshot whole: false when there was none, or a
  // damaged one.
  bool snapshotRead() const { return snapshotRead_; }
  // Whether load() found a snapshot it could not read.
  bool snapshotDamaged() const { return snapshotDamaged_; }

  bool holds(const PolicyRule& rule) const { return rules_.count(rule) != 0; }
  bool holds(const RouteTableId& table) const { return tables_.count(table) != 0; }
  // Rules and tables held, this run's and the previous run's.
  size_t size() const { return rules_.size() + tables_.size(); }
  // What the previous run held and this run has not taken again.
  std::vector<PolicyRule> leftoverRules() const;
  std::vector<RouteTableId> leftoverTables() const;
  std::vector<PolicyRule> rules() const;
  std::vector<RouteTableId> tables() const;
  // The nexthop a held rule routes to (unset when not recorded).
  Velnet::IpGenAddr nexthopOf(const PolicyRule& rule) const;

  // Rewrites the snapshot from what is held (to a temporary file written
  // and synced whole, renamed into place, the directory synced) and
  // empties the journal; on any failure the snapshot in place stays.
  bool compact();
  // Deletes the file and its journal.
  void remove();
  // Whether the snapshot or the journal this run writes was deleted or
  // replaced from outside and has been written again from what is held in
  // memory (a snapshot, and an empty journal).
  bool restoreIfGone();

  // Lines in the journal now.
  size_t journalLines() const { return journalLines_; }
  // The last failure to write, or "" once a write succeeded again.
  const std::string& error() const { return error_; }
  // What load() found and would not trust.
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  bool append(const std::string& line);
  void replay(const std::string& line);
  void loadSnapshot();
  // Whether `record` is refused as one allocation cannot produce; says so.
  template <typename Record>
  bool refused(const Record& record, const std::string& where);
  void syncDirectory() const;

  std::string path_;
  Kernel::FileDescriptor journal_;
  size_t journalLines_ = 0;
  struct HeldRule {
    bool current = false;  // taken by this run
    Velnet::IpGenAddr nexthop;
  };

  // Each held rule and table, and whether this run has taken it.
  std::map<PolicyRule, HeldRule> rules_;
  std::map<RouteTableId, bool> tables_;
  std::string error_;
  std::vector<std::string> problems_;
  bool snapshotRead_ = false;
  bool snapshotDamaged_ = false;
  // The snapshot as this run last wrote or read it (inode, size, change
  // time); all 0 for none.
  struct FileMark {
    ino_t inode = 0;
    off_t size = 0;
    int64_t changed = 0;  // ns
    bool operator==(const FileMark&) const = default;
  };
  FileMark snapshot_;
  static FileMark markOf(const std::string& path);
};

}  // namespace Kernel
