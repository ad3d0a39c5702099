#include "daemon/BackgroundWork.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace Waymark {

BackgroundWork::BackgroundWork()
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] { work(); }) {}

BackgroundWork::~BackgroundWork() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    jobs_.clear();
  }
  changed_.notify_all();
  thread_.join();
}

void BackgroundWork::post(Job job) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

void BackgroundWork::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (stopping_) return;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    ++running_;
    lock.unlock();
    Done done = job();
    lock.lock();
    --running_;
    done_.push_back(std::move(done));
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake_.get(), &one, sizeof one);
    changed_.notify_all();
  }
}

void BackgroundWork::finish() {
  uint64_t count;
  [[maybe_unused]] const ssize_t n = read(wake_.get(), &count, sizeof count);
  std::deque<Done> done;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    done.swap(done_);
  }
  for (const auto& d : done) {
    if (d) d();
  }
}

void BackgroundWork::drain() {
  // What a finished job's completion posts is waited for too.
  do {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return jobs_.empty() && running_ == 0; });
    }
    finish();
  } while (pending() != 0);
}

size_t BackgroundWork::pending() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return jobs_.size() + running_ + done_.size();
}

}  // namespace Waymark
