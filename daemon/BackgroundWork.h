// Waymark::BackgroundWork: one thread beside the event loop for work whose
// cost grows with the configuration (the configuration's warnings, the
// kernel's counters), so that the loop's turns stay short at any size. The
// router posts a job that works on data it owns or shares immutably; what the
// job returns runs back on the loop's thread, in posting order, when the loop
// calls finish(), which fd() wakes it for.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "kernel/FileDescriptor.h"

namespace Waymark {

class BackgroundWork {
 public:
  // Runs on the loop's thread once its job is done.
  using Done = std::function<void()>;
  // Runs on the background thread.
  using Job = std::function<Done()>;

  BackgroundWork();
  // Lets the job that runs finish; the others are dropped.
  ~BackgroundWork();
  BackgroundWork(const BackgroundWork&) = delete;
  BackgroundWork& operator=(const BackgroundWork&) = delete;

  void post(Job job);
  // Readable while finished jobs wait for finish().
  int fd() const { return wake_.get(); }
  // Runs what finished jobs returned; never waits.
  void finish();
  // Waits until every posted job is done and finished, also those that
  // completions post.
  void drain();
  // Jobs posted and not yet finished.
  size_t pending() const;

 private:
  void work();

  Kernel::FileDescriptor wake_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  std::deque<Done> done_;
  size_t running_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace Waymark
