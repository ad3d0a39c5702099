// Vix::LinkQueue<Value, Index>: a first-in first-out queue of entities whose
// members also carry an index (vix_index), so that a member can be found,
// replaced or removed by index. The iptables operation queue is one.
//
// Members are kept in ascending index order in a singly linked list. The next
// index is one past the highest index ever assigned; appending uses it, so an
// ordinary enqueue never searches. Placement at an arbitrary index keeps the
// order: before the head, after the tail, or at its place inside the list.
// A placement that cannot be made raises RangeError and changes nothing:
// "linkqueue index space full" when no index is left for an append, and
// "linkqueue index out of range" for an index that the queue cannot hold (the
// largest index value, whose successor would not fit).
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

#include "framework/Errors.h"
#include "framework/Ptr.h"
#include "framework/PtrInterface.h"

namespace Vix {

template <class V, class Index>
class LinkQueue;

template <class Index>
class LinkQueueMember : public PtrInterface {
 public:
  Index vixIndex() const { return vixIndex_; }
  bool queued() const { return queued_; }

 private:
  template <class V, class I>
  friend class LinkQueue;
  Index vixIndex_ = 0;
  bool queued_ = false;
  LinkQueueMember* lqNext_ = nullptr;
};

template <class V, class Index = uint32_t>
class LinkQueue {
  static_assert(std::is_unsigned_v<Index>, "a queue index is an unsigned integer");

 public:
  using Member = LinkQueueMember<Index>;
  static constexpr Index kMaxIndex = std::numeric_limits<Index>::max();

  LinkQueue() = default;
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;
  ~LinkQueue() { memberDelAll(); }

  uint32_t members() const { return count_; }
  bool empty() const { return count_ == 0; }
  Index firstIndex() const { return firstIndex_; }
  Index nextIndex() const { return nextIndex_; }
  V* head() const { return static_cast<V*>(head_); }
  V* tail() const { return static_cast<V*>(tail_); }

  // Appends `member` at the next index: the ordinary enqueue.
  void memberNew(const Ptr<V>& member) { doMemberIs(raisedNextIndex(), member); }

  // Places `member` at `index`; a null member removes whatever is there.
  void doMemberIs(Index index, const Ptr<V>& member) {
    if (!member) {
      memberDel(index);
      return;
    }
    const Index next = raisedNextIndex();
    if (index == kMaxIndex) {
      throw RangeError(index == next ? "linkqueue index space full"
                                     : "linkqueue index out of range");
    }
    Member* m = member.get();
    if (m->queued_) {
      if (m->vixIndex_ == index) return;
      release(unlink(m));
    }
    // Past the tail nothing can occupy the index: the ordinary enqueue costs
    // no search.
    const bool pastTail = tail_ == nullptr || index > tail_->vixIndex_;
    if (!pastTail) {
      if (Member* occupant = find(index)) release(unlink(occupant));
    }
    m->referenceInc();
    m->queued_ = true;
    m->vixIndex_ = index;
    link(m);
    if (index >= nextIndex_) nextIndex_ = index + 1;
  }

  // Removes and returns the member at `index`; null when there is none.
  Ptr<V> memberDel(Index index) {
    Member* m = find(index);
    if (m == nullptr) return nullptr;
    return adopt(unlink(m));
  }
  // Removes and returns the head (the lowest index); null when empty.
  Ptr<V> dequeue() {
    if (head_ == nullptr) return nullptr;
    return adopt(unlink(head_));
  }
  void memberDelAll() {
    while (head_ != nullptr) release(unlink(head_));
  }

  bool isMemberOf(Index index) const { return find(index) != nullptr; }
  V* member(Index index) const { return static_cast<V*>(find(index)); }

  class Iterator {
   public:
    V* operator->() const { return current_.operator->(); }
    V& operator*() const { return *current_; }
    bool atEnd() const { return !current_; }
    explicit operator bool() const { return !atEnd(); }
    Iterator& operator++() {
      // A member removed meanwhile has no successor; its old place is found by
      // index.
      Member* m = current_.get();
      current_ = static_cast<V*>(m->queued_ ? m->lqNext_ : queue_->firstAtOrAfter(m->vixIndex_));
      return *this;
    }

   private:
    friend class LinkQueue;
    Iterator(const LinkQueue* q, Member* m) : queue_(q), current_(static_cast<V*>(m)) {}
    const LinkQueue* queue_;
    Ptr<V> current_;
  };
  Iterator begin() const { return Iterator(this, head_); }
  // The member at `index`, or the first after it.
  Iterator startAt(Index index) const { return Iterator(this, firstAtOrAfter(index)); }

 private:
  Index raisedNextIndex() {
    if (tail_ != nullptr && nextIndex_ <= tail_->vixIndex_) {
      if (tail_->vixIndex_ == kMaxIndex) throw RangeError("linkqueue index space full");
      nextIndex_ = tail_->vixIndex_ + 1;
    }
    return nextIndex_;
  }

  Member* find(Index index) const {
    for (Member* m = head_; m != nullptr && m->vixIndex_ <= index; m = m->lqNext_) {
      if (m->vixIndex_ == index) return m;
    }
    return nullptr;
  }
  Member* firstAtOrAfter(Index index) const {
    Member* m = head_;
    while (m != nullptr && m->vixIndex_ < index) m = m->lqNext_;
    return m;
  }

  void link(Member* m) {
    ++count_;
    if (head_ == nullptr) {
      m->lqNext_ = nullptr;
      head_ = tail_ = m;
      firstIndex_ = m->vixIndex_;
      return;
    }
    if (m->vixIndex_ < head_->vixIndex_) {
      m->lqNext_ = head_;
      head_ = m;
      firstIndex_ = m->vixIndex_;
      return;
    }
    if (m->vixIndex_ > tail_->vixIndex_) {
      m->lqNext_ = nullptr;
      tail_->lqNext_ = m;
      tail_ = m;
      return;
    }
    Member* prev = head_;
    while (prev->lqNext_->vixIndex_ < m->vixIndex_) prev = prev->lqNext_;
    m->lqNext_ = prev->lqNext_;
    prev->lqNext_ = m;
  }

  // Takes `m` out of the list; its reference passes to the caller.
  Member* unlink(Member* m) {
    Member* prev = nullptr;
    for (Member* c = head_; c != m; c = c->lqNext_) prev = c;
    (prev ? prev->lqNext_ : head_) = m->lqNext_;
    if (tail_ == m) tail_ = prev;
    m->lqNext_ = nullptr;
    m->queued_ = false;
    --count_;
    firstIndex_ = head_ ? head_->vixIndex_ : nextIndex_;
    return m;
  }

  static Ptr<V> adopt(Member* m) {
    Ptr<V> p(static_cast<V*>(m));
    m->referenceDec();
    return p;
  }
  static void release(Member* m) { m->referenceDec(); }

  Member* head_ = nullptr;
  Member* tail_ = nullptr;
  Index firstIndex_ = 0;
  Index nextIndex_ = 0;
  uint32_t count_ = 0;
};

}  // namespace Vix
