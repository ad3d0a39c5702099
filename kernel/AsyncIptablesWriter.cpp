#include "kernel/AsyncIptablesWriter.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "kernel/MangleTransaction.h"
#include "kernel/RestoreIptablesWriter.h"

namespace Kernel {

namespace {

std::set<std::string> names(const std::map<std::string, std::vector<std::string>>& chains) {
  std::set<std::string> out;
  for (const auto& [name, rules] : chains) out.insert(name);
  return out;
}

}  // namespace

AsyncIptablesWriter::AsyncIptablesWriter(AclUtils::IptablesWriter& restore)
    : restore_(restore), wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  lanes_[0].type = Acl::aclTypeIpv4;
  lanes_[1].type = Acl::aclTypeIpv6;
  for (Lane& l : lanes_) l.thread = std::thread([this, &l] { work(l); });
}

AsyncIptablesWriter::~AsyncIptablesWriter() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (Lane& l : lanes_) l.thread.join();
}

std::optional<AclUtils::IptablesWriteResult> AsyncIptablesWriter::write(Acl::AclType type,
                                                                        const std::string& text) {
  if (type == Acl::aclTypeOther) return writeNow(type, text);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Lane& l = lane(type);
    if (holding_) {
      l.held.push_back(text);
      return std::nullopt;
    }
    l.jobs.push_back({{text}, false, {}, {}});
  }
  wake_.notify_all();
  return std::nullopt;
}

void AsyncIptablesWriter::hold() {
  std::lock_guard<std::mutex> lock(mutex_);
  holding_ = true;
}

void AsyncIptablesWriter::commit(const std::set<std::string>& v4Chains,
                                 const std::set<std::string>& v6Chains) {
  release([&](const Lane& l, Job& job) {
    job.existingChains = l.type == Acl::aclTypeIpv6 ? v6Chains : v4Chains;
  });
}

void AsyncIptablesWriter::commitInPlace(const OwnReader& readOwn) {
  release([&](const Lane&, Job& job) { job.inPlace = readOwn; });
}

void AsyncIptablesWriter::release(const std::function<void(const Lane&, Job&)>& describe) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = false;
    for (Lane& l : lanes_) {
      if (l.held.empty()) continue;
      Job job{std::exchange(l.held, {}), true, {}, {}};
      describe(l, job);
      l.jobs.push_back(std::move(job));
    }
  }
  wake_.notify_all();
}

uint64_t AsyncIptablesWriter::writes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writes_;
}

MangleTransaction AsyncIptablesWriter::written(Acl::AclType type) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return type == Acl::aclTypeIpv6 ? lanes_[1].written : lanes_[0].written;
}

std::vector<AsyncIptablesWriter::Outcome> AsyncIptablesWriter::takeOutcomes() {
  uint64_t count = 0;
  if (read(wakeup_.get(), &count, sizeof count) < 0) count = 0;
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(outcomes_, {});
}

bool AsyncIptablesWriter::idle() const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Lane& l : lanes_) {
    if (l.busy || !l.jobs.empty() || !l.held.empty()) return false;
  }
  return outcomes_.empty();
}

void AsyncIptablesWriter::work(Lane& l) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    wake_.wait(lock, [&] { return stopping_ || !l.jobs.empty(); });
    if (l.jobs.empty()) return;
    Job job = std::move(l.jobs.front());
    l.jobs.pop_front();
    // Batches that queued up while the lane was busy go together.
    while (!job.transaction && job.batches.size() < kBatchesTogether && !l.jobs.empty() &&
           !l.jobs.front().transaction) {
      job.batches.push_back(std::move(l.jobs.front().batches.front()));
      l.jobs.pop_front();
    }
    l.busy = true;
    lock.unlock();
    std::vector<Outcome> done = run(l, job);
    lock.lock();
    // The lane is free again by the time its outcomes can be taken, so that
    // a writer whose outcomes are all taken is idle.
    l.busy = false;
    for (auto& o : done) outcomes_.push_back(std::move(o));
    const uint64_t one = 1;
    if (::write(wakeup_.get(), &one, sizeof one) < 0) continue;
  }
}

std::vector<AsyncIptablesWriter::Outcome> AsyncIptablesWriter::run(Lane& l, const Job& job) {
  if (job.transaction) return runTransaction(l, job);
  std::vector<Outcome> done;
  // Consecutive batches that iptables-restore takes as one transaction are
  // written as one; the others alone.
  std::vector<std::string> group;
  for (const auto& batch : job.batches) {
    group.push_back(batch);
    if (group.size() > 1 &&
        AclUtils::RestoreIptablesWriter::restoreParts(joined(group)).size() != 1) {
      group.pop_back();
      runTogether(l, group, done);
      group = {batch};
    }
  }
  runTogether(l, group, done);
  return done;
}

std::string AsyncIptablesWriter::joined(const std::vector<std::string>& batches) {
  std::string text;
  for (const auto& b : batches) text += b;
  return text;
}

void AsyncIptablesWriter::runTogether(Lane& l, const std::vector<std::string>& batches,
                                      std::vector<Outcome>& done) {
  if (batches.size() > 1) {
    const std::string text = AclUtils::RestoreIptablesWriter::restoreParts(joined(batches)).front();
    if (writeNow(l.type, text).ok) {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& batch : batches) {
        l.written.add(batch);
        done.push_back({l.type, batch, {}});
      }
      ++writes_;
      return;
    }
    // Refused together (nothing was written): alone, each gets its own
    // outcome.
  }
  for (const auto& batch : batches) {
    const auto result = writeNow(l.type, batch);
    std::lock_guard<std::mutex> lock(mutex_);
    if (result.ok) {
      l.written.add(batch);
      ++writes_;
    }
    done.push_back({l.type, batch, result});
  }
}

std::vector<AsyncIptablesWriter::Outcome> AsyncIptablesWriter::runTransaction(Lane& l,
                                                                              const Job& job) {
  MangleTransaction transaction;
  for (const auto& batch : job.batches) transaction.add(batch);
  std::string text;
  if (transaction.foldable() && job.inPlace) {
    const auto own = job.inPlace(l.type);
    text = transaction.textInPlace(names(own.chains), own.jumps);
  } else if (transaction.foldable()) {
    text = transaction.text(job.existingChains);
  }
  const auto written = !text.empty() ? writeNow(l.type, text)
                                     : AclUtils::IptablesWriteResult{false, "cannot be folded", ""};
  std::vector<Outcome> done;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (written.ok) {
      ++transactions_;
      ++writes_;
      l.written = transaction;
      for (const auto& batch : job.batches) done.push_back({l.type, batch, {}});
      return done;
    }
    ++fallbacks_;
    fallbackReason_ = written.error;
  }
  if (job.inPlace) {
    for (const auto& batch : job.batches) {
      done.push_back({l.type, batch, {false, "the rebuild was refused: " + written.error, text}});
    }
    return done;
  }
  // Batch by batch, as without the transaction; the model follows what each
  // written batch leaves.
  MangleTransaction model;
  for (const auto& batch : job.batches) {
    const auto result = writeNow(l.type, batch);
    if (result.ok) model.add(batch);
    done.push_back({l.type, batch, result});
  }
  std::lock_guard<std::mutex> lock(mutex_);
  l.written = std::move(model);
  writes_ += job.batches.size();
  return done;
}

std::string AsyncIptablesWriter::fallbackReason() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fallbackReason_;
}

AclUtils::IptablesWriteResult AsyncIptablesWriter::writeNow(Acl::AclType type,
                                                            const std::string& text) {
  return restore_.write(type, text)
      .value_or(AclUtils::IptablesWriteResult{false, "no outcome", ""});
}

}  // namespace Kernel
