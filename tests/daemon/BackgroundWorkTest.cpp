// Work done beside the event loop comes back to the loop's thread, in order.
#include "daemon/BackgroundWork.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

namespace Waymark {
namespace {

TEST(BackgroundWorkTest, JobsRunBesideTheCallerAndTheirResultsComeBackInOrderOnFinish) {
  BackgroundWork work;
  const auto caller = std::this_thread::get_id();
  std::vector<int> order;
  std::atomic<bool> besides = true;
  for (int i = 0; i < 3; ++i) {
    work.post([&, i]() -> BackgroundWork::Done {
      besides = besides && std::this_thread::get_id() != caller;
      return [&, i] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        order.push_back(i);
      };
    });
  }
  // The descriptor wakes the loop once a job is done; nothing runs before
  // finish().
  pollfd p{work.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 20000), 1) << "awaited: a finished job's wake-up";
  while (order.size() < 3) {
    ASSERT_EQ(poll(&p, 1, 20000), 1) << "awaited: the remaining jobs";
    work.finish();
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE(besides);
  EXPECT_EQ(work.pending(), 0u);
}

TEST(BackgroundWorkTest, DrainWaitsForWorkThatCompletionsPost) {
  BackgroundWork work;
  std::vector<std::string> steps;
  work.post([&]() -> BackgroundWork::Done {
    return [&] {
      steps.push_back("read");
      work.post([&]() -> BackgroundWork::Done { return [&] { steps.push_back("checked"); }; });
    };
  });
  work.drain();
  EXPECT_EQ(steps, (std::vector<std::string>{"read", "checked"}));
  EXPECT_EQ(work.pending(), 0u);
}

}  // namespace
}  // namespace Waymark
