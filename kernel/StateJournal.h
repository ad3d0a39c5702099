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

#include <cstddef>
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

  std::string journalPath() const { return path_ + ".journal"; }

  // Reads the snapshot and replays the journal over it; all of it is the
  // previous run's. A missing or damaged file records nothing.
  void load();

  void ruleHeld(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop);
  void ruleReleased(const PolicyRule& rule);
  void tableHeld(const RouteTableId& table);
  void tableReleased(const RouteTableId& table);

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

  // Rewrites the snapshot from what is held and empties the journal.
  bool compact();
  // Deletes the file and its journal.
  void remove();

  // Lines in the journal now.
  size_t journalLines() const { return journalLines_; }
  // The last failure to write, or "".
  const std::string& error() const { return error_; }

 private:
  void append(const std::string& line);
  void replay(const std::string& line);

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
};

}  // namespace Kernel
