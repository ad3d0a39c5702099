// Kernel::AsyncIptablesWriter: waymarkd's iptables writer. Each family has
// a lane with a thread of its own that feeds the family's batches, in the
// order they were written, to iptables-restore (or ip6tables-restore); the
// two families are written at the same time, and the event loop never waits
// for a restore. The threads only run programs: outcomes come back to the
// loop (a descriptor turns readable) and the loop hands them to the
// family's iptables manager.
//
// At start-up the writer holds every batch until the daemon commits: the
// dispatch chain's set-up and all the start's batches then reach the kernel
// as one transaction per family (MangleTransaction), so that a restart
// swaps the old rules for the new in one step. If a family's transaction
// cannot be folded or is refused, its batches are written one by one, so
// that the batch and line iptables refuses are reported as they would have
// been without the transaction.
//
// A rebuild while running (drift repair, resync) is held the same way and
// committed in place: one transaction per family that changes waymark's
// part of the table only. A refused rebuild is not written batch by batch,
// since its first batch empties the whole table; its batches fail instead.
//
// Batches that queued up while a family's restore ran are written together,
// as one transaction, when iptables-restore can take them as one; refused,
// they are written again one by one, so that each gets its own outcome as
// if they had never been grouped. A failover's few batches, alone in the
// queue, go at once.
//
// The writer also keeps, per family, what the batches it wrote leave in the
// table (written()), which the drift check compares with the kernel's.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kernel/FileDescriptor.h"
#include "kernel/IptablesWriter.h"
#include "kernel/MangleReadback.h"
#include "kernel/MangleTransaction.h"

namespace Kernel {

class AsyncIptablesWriter : public AclUtils::IptablesWriter {
 public:
  struct Outcome {
    Acl::AclType type;
    std::string text;
    AclUtils::IptablesWriteResult result;
  };

  // REQUIRES: `restore` answers at once, outlives the writer and may be
  // called from two threads at once.
  explicit AsyncIptablesWriter(AclUtils::IptablesWriter& restore);
  ~AsyncIptablesWriter() override;
  AsyncIptablesWriter(const AsyncIptablesWriter&) = delete;
  AsyncIptablesWriter& operator=(const AsyncIptablesWriter&) = delete;

  // Queues the batch; its outcome comes through takeOutcomes().
  std::optional<AclUtils::IptablesWriteResult> write(Acl::AclType type,
                                                     const std::string& text) override;

  // From now until commit(), batches are held, not written.
  void hold();
  // Writes what is held as one transaction per family, onto mangle tables
  // that hold the user chains `v4Chains` and `v6Chains`.
  void commit(const std::set<std::string>& v4Chains = {},
              const std::set<std::string>& v6Chains = {});
  // What a family's table holds of waymark's now; read on the family's
  // thread, right before its rebuild is written.
  using OwnReader = std::function<MangleReadback::OwnPart(Acl::AclType)>;
  // Writes what is held as one transaction per family in place, onto
  // tables whose waymark part `readOwn` tells.
  void commitInPlace(const OwnReader& readOwn);
  // What the batches written so far leave in the family's table; not
  // known() when no start was written.
  MangleTransaction written(Acl::AclType type) const;
  // How many batches and transactions were written so far.
  uint64_t writes() const;

  // Readable when outcomes are waiting.
  int fd() const { return wakeup_.get(); }
  // The outcomes that arrived, in the order of their family's batches.
  std::vector<Outcome> takeOutcomes();
  // True when nothing is held, queued or being written, and every outcome
  // has been taken.
  bool idle() const;

  // Transactions written whole, and those that fell back to single batches.
  uint32_t transactions() const { return transactions_; }
  uint32_t transactionFallbacks() const { return fallbacks_; }
  // Why the last transaction was written batch by batch ("" if none was).
  std::string fallbackReason() const;

 private:
  struct Job {
    std::vector<std::string> batches;
    bool transaction = false;
    std::set<std::string> existingChains;  // of a transaction
    OwnReader inPlace;                     // of a rebuild
  };
  struct Lane {
    Acl::AclType type;
    std::deque<Job> jobs;
    std::vector<std::string> held;
    MangleTransaction written;
    bool busy = false;
    std::thread thread;
  };

  // At most this many queued batches are written as one transaction.
  static constexpr size_t kBatchesTogether = 64;

  void work(Lane& lane);
  // Writes the job's batches; their outcomes, in order.
  std::vector<Outcome> run(Lane& lane, const Job& job);
  std::vector<Outcome> runTransaction(Lane& lane, const Job& job);
  // Writes `batches` as one transaction, or each alone when it is refused.
  void runTogether(Lane& lane, const std::vector<std::string>& batches, std::vector<Outcome>& done);
  static std::string joined(const std::vector<std::string>& batches);
  // Stops holding; each family's held batches become one transaction job,
  // which `describe` completes.
  void release(const std::function<void(const Lane&, Job&)>& describe);
  Lane& lane(Acl::AclType type) { return type == Acl::aclTypeIpv6 ? lanes_[1] : lanes_[0]; }

  // The one place a batch is written, at once.
  AclUtils::IptablesWriteResult writeNow(Acl::AclType type, const std::string& text);

  AclUtils::IptablesWriter& restore_;
  Kernel::FileDescriptor wakeup_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  Lane lanes_[2];
  std::vector<Outcome> outcomes_;
  bool holding_ = false;
  bool stopping_ = false;
  uint32_t transactions_ = 0;
  uint32_t fallbacks_ = 0;
  uint64_t writes_ = 0;
  std::string fallbackReason_;
};

}  // namespace Kernel
