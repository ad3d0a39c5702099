// AclUtils::RestoreIptablesWriter: the writer that runs iptables-restore
// itself and waits for it. The daemon's asynchronous writer uses it on its
// lanes; tests of the kernel use it directly.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/IptablesWriter.h"

namespace AclUtils {

// Pipes each batch into `iptables-restore --noflush -w` (IPv4) or
// `ip6tables-restore --noflush -w` (IPv6) and waits for it, at most
// `timeLimit` seconds.
//
// iptables 1.8.9 with the nf_tables backend crashes (SIGSEGV) on a batch that
// replaces ("-R") a rule created or replaced earlier in the same batch, which
// is what start-up produces: a policy's pairs are appended, then its classes'
// nexthops come up and the pairs are replaced. So a batch is run as
// consecutive restores, cut before any "-R" whose chain was created, flushed
// or grown, or whose rule was replaced, earlier in the same restore. Order and
// content are unchanged; a failing restore ends the batch.
class RestoreIptablesWriter : public IptablesWriter {
 public:
  explicit RestoreIptablesWriter(double timeLimit = 30.0) : timeLimit_(timeLimit) {}
  std::optional<IptablesWriteResult> write(Acl::AclType type, const std::string& text) override;
  // The same, always at once.
  IptablesWriteResult writeNow(Acl::AclType type, const std::string& text);
  // The restores a framed batch is run as, each framed again.
  static std::vector<std::string> restoreParts(const std::string& text);
  // Whether `pid` is one of the last restores this writer started, so that
  // the kernel's announcements of their changes are known for waymark's.
  // May be asked while restores run on other threads.
  bool started(int pid) const;

 private:
  static constexpr size_t kRemembered = 64;

  double timeLimit_;
  mutable std::mutex mutex_;
  std::deque<int> pids_;
};

}  // namespace AclUtils
