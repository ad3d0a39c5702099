// Waymark::MangleWatch: notices when waymark's part of the mangle tables is
// no longer what its own writes left there: a chain, the dispatch jump or a
// policy chain's rules removed, added or changed by something else (an
// `iptables -t mangle -F`, a firewall's `nft flush ruleset`).
//
// It compares after an announcement that a mangle table changed (after a
// short grace, so that a burst is read once), and every kPeriod seconds in
// any case, for changes that are not announced (the legacy iptables back
// end, a lost announcement); on tables so large that reading them back
// takes more than a hundredth of that, less often, so that the periodic
// comparison never costs more than a hundredth of the time. Each comparison
// reads both tables back once, on a thread of its own: at 100,000 rules a
// read-back takes a second, which the event loop must not wait for. A
// comparison that waymark's own writes overtook is dropped and made again.
//
// The shape (chains, their rule counts, the jumps) is compared with what
// the writer's batches leave; the rules' texts, which iptables prints in
// its own words, are compared with the read-back taken after waymark's last
// write. The KernelSession owns one and asks only while the writer is idle.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>

#include "kernel/MangleReadback.h"
#include "kernel/MangleTransaction.h"

namespace Waymark {

class MangleWatch {
 public:
  static constexpr double kGrace = 0.1;
  static constexpr double kPeriod = 10.0;
  // How often a read-back on its way is looked at.
  static constexpr double kPoll = 0.02;

  // The family's table as iptables-save prints it; `error` set when it
  // cannot be read. Called off the loop's thread.
  using Readback = std::function<std::string(bool v6, std::string* error)>;
  // What the writer's batches leave in the family's table.
  using Written = std::function<Kernel::MangleTransaction(bool v6)>;

  MangleWatch(Readback readback, Written written)
      : readback_(std::move(readback)), written_(std::move(written)) {}

  // A mangle table changed, by whomever.
  void suspect(double now);
  // When check() should next be called.
  double due() const;
  // A change was announced and its comparison is not done yet.
  bool suspected() const { return suspectedAt_ >= 0 || readingSuspected_; }
  // Starts a comparison, or finishes the one on its way: what differs
  // ("" when nothing does) once it is done, nothing before. `writes`
  // counts the writer's writes: a comparison they overtook is made again,
  // and a change of texts that follows one of waymark's own writes is
  // taken as the new reference.
  std::optional<std::string> check(double now, uint64_t writes);

  // What differs between what waymark wrote and the table's waymark part,
  // in shape; "" when they agree.
  static std::string differences(const Kernel::MangleTransaction& expected,
                                 const Kernel::MangleReadback::OwnPart& actual);

 private:
  struct Saved {
    std::string text[2];
    bool ok[2] = {false, false};
    double seconds = 0.0;  // how long reading back took
  };

  std::string compare(const Saved& saved, uint64_t writes);
  std::string compareFamily(bool v6, const std::string& save, uint64_t writes);

  const Readback readback_;
  const Written written_;
  double suspectedAt_ = -1.0;
  double checkedAt_ = 0.0;
  double polledAt_ = 0.0;
  double period_ = kPeriod;
  std::future<Saved> reading_;
  bool readingSuspected_ = false;  // the read-back on its way follows a change
  uint64_t writesBefore_ = 0;
  // The read-back after waymark's last write, per family.
  Kernel::MangleReadback::OwnPart reference_[2];
  uint64_t referenceWrites_[2] = {UINT64_MAX, UINT64_MAX};
};

}  // namespace Waymark
