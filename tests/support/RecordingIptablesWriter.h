// An iptables writer that records every batch instead of loading it, can
// refuse batches that contain a chosen text, can make each batch take time
// on the virtual clock, and can hold a write until the test lets it go. It may be written from two
// threads at once, as the asynchronous writer's lanes do.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/IptablesWriter.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

class RecordingIptablesWriter : public AclUtils::IptablesWriter {
 public:
  struct Batch {
    Acl::AclType type;
    std::string text;
  };

  std::optional<AclUtils::IptablesWriteResult> write(Acl::AclType type,
                                                     const std::string& text) override {
    std::unique_lock<std::mutex> lock(mutex_);
    batches.push_back({type, text});
    released_.wait(lock, [this] { return !paused_; });
    if (clock_ != nullptr) clock_->advance(secondsPerBatch_);
    if (!refuse_.empty() && text.find(refuse_) != std::string::npos) {
      return AclUtils::IptablesWriteResult{false, "iptables-restore: line 2 failed", ""};
    }
    return AclUtils::IptablesWriteResult{};
  }

  // While paused, a write is recorded and then waits.
  void pausedIs(bool paused) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      paused_ = paused;
    }
    released_.notify_all();
  }
  size_t written() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return batches.size();
  }
  // Batches containing `text` fail.
  void refuseIs(const std::string& text) { refuse_ = text; }
  void costIs(VirtualClock* clock, double secondsPerBatch) {
    clock_ = clock;
    secondsPerBatch_ = secondsPerBatch;
  }

  // Every line written for `type`, without the "*mangle"/"COMMIT" frames.
  std::vector<std::string> lines(Acl::AclType type) const {
    std::vector<std::string> out;
    for (const auto& b : batches) {
      if (b.type != type) continue;
      size_t start = 0;
      while (start < b.text.size()) {
        const size_t nl = b.text.find('\n', start);
        const std::string line = b.text.substr(start, nl - start);
        if (line != "*mangle" && line != "COMMIT") out.push_back(line);
        start = nl == std::string::npos ? b.text.size() : nl + 1;
      }
    }
    return out;
  }
  void clear() { batches.clear(); }

  std::vector<Batch> batches;

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  bool paused_ = false;
  std::string refuse_;
  VirtualClock* clock_ = nullptr;
  double secondsPerBatch_ = 0.0;
};

}  // namespace waymark::test
