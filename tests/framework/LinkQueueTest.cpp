#include "framework/LinkQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Vix::make;
using Vix::Ptr;

class Op : public Vix::LinkQueueMember<uint32_t> {
 public:
  explicit Op(std::string text) : text(std::move(text)) {}
  std::string text;
};

using Queue = Vix::LinkQueue<Op, uint32_t>;

// "index:text" of every member, head first.
std::vector<std::string> contents(const Queue& q) {
  std::vector<std::string> out;
  for (auto it = q.begin(); !it.atEnd(); ++it) {
    out.push_back(std::to_string(it->vixIndex()) + ":" + it->text);
  }
  return out;
}

class LinkQueueTest : public ::testing::Test {
 protected:
  Ptr<Op> op(const std::string& text) { return make<Op>(text); }
  Queue q;
};

TEST_F(LinkQueueTest, AppendsAtTheNextIndexAndDequeuesInOrder) {
  q.memberNew(op("a"));
  q.memberNew(op("b"));
  q.memberNew(op("c"));
  EXPECT_EQ(contents(q), (std::vector<std::string>{"0:a", "1:b", "2:c"}));
  EXPECT_EQ(q.firstIndex(), 0u);
  EXPECT_EQ(q.nextIndex(), 3u);
  EXPECT_EQ(q.dequeue()->text, "a");
  EXPECT_EQ(q.firstIndex(), 1u);
  EXPECT_EQ(q.dequeue()->text, "b");
  EXPECT_EQ(q.dequeue()->text, "c");
  EXPECT_FALSE(q.dequeue());
  EXPECT_EQ(q.firstIndex(), 3u);
  q.memberNew(op("d"));
  EXPECT_EQ(contents(q), (std::vector<std::string>{"3:d"}));
}

TEST_F(LinkQueueTest, PlacesByIndexAtHeadInsideAndBeyondTheTail) {
  q.doMemberIs(10, op("ten"));
  EXPECT_EQ(q.firstIndex(), 10u);
  EXPECT_EQ(q.nextIndex(), 11u);
  q.doMemberIs(4, op("four"));
  EXPECT_EQ(q.firstIndex(), 4u);
  q.doMemberIs(20, op("twenty"));
  EXPECT_EQ(q.nextIndex(), 21u);
  q.doMemberIs(15, op("fifteen"));
  q.memberNew(op("next"));
  EXPECT_EQ(contents(q),
            (std::vector<std::string>{"4:four", "10:ten", "15:fifteen", "20:twenty", "21:next"}));
  EXPECT_TRUE(q.isMemberOf(15));
  EXPECT_FALSE(q.isMemberOf(16));
  EXPECT_EQ(q.startAt(11)->text, "fifteen");
}

TEST_F(LinkQueueTest, MovesAQueuedMemberToItsNewIndexAndLeavesOneAtItsOwnIndex) {
  const Ptr<Op> a = op("a");
  q.memberNew(a);
  q.memberNew(op("b"));
  q.doMemberIs(0, a);
  EXPECT_EQ(contents(q), (std::vector<std::string>{"0:a", "1:b"}));
  q.doMemberIs(7, a);
  EXPECT_EQ(contents(q), (std::vector<std::string>{"1:b", "7:a"}));
  EXPECT_EQ(a->vixIndex(), 7u);
  EXPECT_EQ(q.members(), 2u);
  EXPECT_EQ(a->references(), 2u);
}

TEST_F(LinkQueueTest, ANullMemberDeletesTheMemberAtThatIndex) {
  q.memberNew(op("a"));
  q.memberNew(op("b"));
  q.doMemberIs(0, nullptr);
  EXPECT_EQ(contents(q), (std::vector<std::string>{"1:b"}));
  EXPECT_FALSE(q.memberDel(0));
  EXPECT_EQ(q.memberDel(1)->text, "b");
  EXPECT_TRUE(q.empty());
}

TEST_F(LinkQueueTest, AnAppendWithNoIndexLeftFailsAndChangesNothing) {
  q.doMemberIs(Queue::kMaxIndex - 1, op("last"));
  EXPECT_EQ(q.nextIndex(), Queue::kMaxIndex);
  try {
    q.memberNew(op("one too many"));
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(q.members(), 1u);
}

TEST_F(LinkQueueTest, AnIndexTheQueueCannotHoldIsOutOfRange) {
  q.memberNew(op("a"));
  try {
    q.doMemberIs(Queue::kMaxIndex, op("too far"));
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "linkqueue index out of range");
  }
  EXPECT_EQ(contents(q), (std::vector<std::string>{"0:a"}));
}

TEST_F(LinkQueueTest, IterationContinuesPastAMemberRemovedUnderIt) {
  for (const char* t : {"a", "b", "c"}) q.memberNew(op(t));
  auto it = q.begin();
  q.memberDel(0);
  ++it;
  EXPECT_EQ(it->text, "b");
}

}  // namespace
