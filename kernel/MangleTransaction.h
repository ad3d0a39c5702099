// Kernel::MangleTransaction: folds the iptables-restore batches of a start
// into one transaction that leaves the mangle table exactly as the batches,
// written one after the other, would have left it. Used by the asynchronous
// writer, so that a restart swaps the old rules for the new in one step and
// packets never meet a flushed table.
//
// The first batch must begin by flushing the table and deleting its chains
// ("-F", "-X"), as the dispatch chain's set-up does: from there on every
// chain's content is known, and each later line (-N, -X, -F, -A, -I, -R,
// -D) is replayed on that model. The transaction then says: flush, delete
// every chain, create the chains that are left, and append their rules.
// Replaying also removes what iptables 1.8.9 cannot take in one restore (a
// rule replaced after it was added in the same restore).
//
// A line the model cannot replay (an unknown chain, a position past the end,
// an unknown command) makes the fold fail; the batches must then be written
// one by one, where iptables reports the line it refused.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Kernel {

class MangleTransaction {
 public:
  // Replays one framed batch ("*mangle" ... "COMMIT"); false when it cannot
  // be folded, and then for good.
  bool add(const std::string& batch);

  bool foldable() const { return foldable_; }
  // Whether what the batches leave is known: a start was replayed and
  // everything since could be.
  bool known() const { return started_ && foldable_; }
  // The one framed transaction onto a mangle table that holds the user
  // chains `existing`. REQUIRES: foldable().
  std::string text(const std::set<std::string>& existing) const;
  // The same rules written in place: only waymark's part of the table
  // changes, onto a table that holds waymark's chains `ownChains` and
  // `jumps` jumps from PREROUTING to the dispatch chain. Every other rule and
  // chain stays as it is, with its counters. REQUIRES: foldable().
  std::string textInPlace(const std::set<std::string>& ownChains, size_t jumps) const;
  // The rules (match and target, as written) chain `name` holds after what
  // was replayed; nothing when there is no such chain.
  const std::vector<std::string>* rules(const std::string& name) const;
  // The user chains, in the order they were made.
  std::vector<std::string> userChains() const;

 private:
  using Chain = std::pair<std::string, std::vector<std::string>>;

  bool replay(const std::string& line);
  Chain* chain(const std::string& name);
  const Chain* chain(const std::string& name) const;

  bool started_ = false;
  bool foldable_ = true;
  // Built-in chains first, then user chains in the order they were made.
  std::vector<Chain> chains_;
};

}  // namespace Kernel
