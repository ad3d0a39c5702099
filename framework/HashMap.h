// Vix::HashMap<Value, Key>: the keyed collection behind every collection
// attribute of waymark's entities.
//
// Members are reference-counted entities (Value derives from HashMapMember and
// has `const Key& key() const`); the map holds one reference to each. A
// member's position value is bitReverse(hash(key)); with 2^k buckets its bucket
// is the top k bits of that value, and each chain is sorted by (position value,
// key). Read bucket by bucket the table is one sequence sorted by (position,
// key), and doubling or halving the buckets never reorders it. That is what
// lets an iteration stop, keep the key it stood on, and resume later with
// startAtHash() after any inserts, deletes or resizes in between: the deferred
// programming loop relies on exactly this.
//
// Lookup and insert are inlined per instantiation; restructuring and ordered
// search run in a generic engine (the ...G functions) through a per-instantiation
// table of key operations, so they are compiled once for all maps.
//
// Not thread-safe; used on the event thread only.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/Errors.h"
#include "framework/Hash.h"
#include "framework/Ptr.h"
#include "framework/PtrInterface.h"

namespace Vix {

class HashMapBase;

// What a member carries for its collection: the link to the next member of its
// bucket and its cached position value. fwkHmNext() is null exactly while the
// member is in no collection (the last member of a chain points to an end
// marker), which is how inserting a member twice is caught.
class HashMapMember : public PtrInterface {
 public:
  HashMapMember* fwkHmNext() const { return fwkHmNext_; }
  uint32_t fwkHmPosition() const { return fwkHmPosition_; }

 private:
  friend class HashMapBase;
  template <class V, class K>
  friend class HashMap;
  // The position first: it fills the tail padding of PtrInterface, which keeps
  // a member of a map of numbers within one small allocation.
  uint32_t fwkHmPosition_ = 0;
  HashMapMember* fwkHmNext_ = nullptr;
};
static_assert(sizeof(HashMapMember) == 24, "position packed into the count word's padding");

// Key operations of one instantiation, for the generic engine.
struct HashMapVTable {
  const void* (*key)(const HashMapMember*);
  uint32_t (*position)(const void* key);
  bool (*equal)(const void* a, const void* b);
  bool (*less)(const void* a, const void* b);
  void (*release)(HashMapMember*);
};

class HashMapBase {
 public:
  uint32_t members() const { return count_; }
  bool empty() const { return count_ == 0; }
  uint32_t buckets() const { return numBuckets_; }
  // Changes whenever members are removed or the table is resized; iterators
  // use it to tell whether their next link can still be trusted.
  uint32_t generation() const { return generation_; }

 protected:
  explicit HashMapBase(const HashMapVTable* vtable) : vtable_(vtable) {}
  HashMapBase(const HashMapBase&) = delete;
  HashMapBase& operator=(const HashMapBase&) = delete;
  ~HashMapBase() { emptyAllBucketsG(); }

  static HashMapMember* chainEnd() { return &chainEnd_; }
  uint32_t bucketOf(uint32_t position) const {
    return bucketBits_ == 0 ? 0 : position >> (32 - bucketBits_);
  }

  // First member whose (position, key) is greater than the given one, or not
  // less when `inclusive`; null past the end.
  HashMapMember* findNextG(uint32_t position, const void* key, bool inclusive) const;
  // First member of the first non-empty bucket at or after `bucket`.
  HashMapMember* findNextBucketG(uint32_t bucket) const {
    for (uint32_t b = bucket; b < numBuckets_; ++b) {
      if (buckets_[b] != chainEnd()) return buckets_[b];
    }
    return nullptr;
  }
  // findNextBucketG for a full walk: members are visited in hash order,
  // which is random in memory, so the heads of the buckets a little ahead are
  // fetched while the current ones are handled.
  HashMapMember* nextBucketPrefetching(uint32_t bucket) const {
    static constexpr uint32_t kAhead = 16;
    if (bucket + kAhead < numBuckets_) __builtin_prefetch(buckets_[bucket + kAhead]);
    return findNextBucketG(bucket);
  }
  // Unlinks the member with `key` and hands the collection's reference to the
  // caller; null when absent.
  HashMapMember* memberDelG(const void* key);
  // Unlinks `member`, which must be in this collection, and hands its
  // reference to the caller.
  void deleteMemberG(HashMapMember* member);
  void deleteAllG();
  void maybeGrowG();
  void maybeShrinkG();
  void emptyAllBucketsG();
  // Links an unlinked member in its sorted place. REQUIRES: its position set.
  void linkG(HashMapMember* member);

  // Buckets before the first insert, so that an insert never links into none.
  void ensureBucketsG();

  std::unique_ptr<HashMapMember*[]> buckets_;
  uint32_t numBuckets_ = 0;
  uint32_t bucketBits_ = 0;
  uint32_t count_ = 0;
  uint32_t generation_ = 0;
  const HashMapVTable* vtable_;

 private:
  void resizeG(uint32_t bits);
  static HashMapMember chainEnd_;
};

template <class V, class K>
class HashMap : public HashMapBase {
 public:
  class Iterator;
  // The end of every iteration, for range-based for.
  struct End {};

  HashMap() : HashMapBase(&kVTable) {}

  // The member with `key`, or null. The pointer is valid until the member is
  // removed; it holds no reference.
  V* find(const K& key) const {
    if (numBuckets_ == 0) return nullptr;
    const uint32_t position = Hash<K>::position(key);
    for (HashMapMember* m = buckets_[bucketOf(position)]; m != chainEnd(); m = m->fwkHmNext_) {
      if (m->fwkHmPosition_ < position) continue;
      if (m->fwkHmPosition_ > position) return nullptr;
      V* v = static_cast<V*>(m);
      if (v->key() == key) return v;
    }
    return nullptr;
  }
  Ptr<V> member(const K& key) const { return Ptr<V>(find(key)); }

  // Inserts `member` and takes a reference to it.
  // REQUIRES: no member with the same key is present.
  void newMember(const Ptr<V>& member) {
    HashMapMember* t = member.get();
    VIX_ASSERT(t->fwkHmNext() == 0, "t->fwkHmNext() == 0");
    t->fwkHmPosition_ = Hash<K>::position(member->key());
    t->referenceInc();
    linkG(t);
  }

  // Removes the member with `key` and returns it; null when absent.
  Ptr<V> memberDel(const K& key) {
    V* removed = static_cast<V*>(memberDelG(&key));
    Ptr<V> result(removed);
    if (removed != nullptr) removed->referenceDec();
    return result;
  }

  void deleteAll() { deleteAllG(); }

  // Calls f(member) for every member in table order without taking a
  // reference to each, which makes it several times faster than an Iterator
  // on maps that fit in cache. For walks that change nothing: `f` must not
  // remove members or make the table resize (checked; a violation aborts).
  template <class F>
  void forEach(F&& f) const {
    const uint32_t generation = generation_;
    for (uint32_t b = 0; b < numBuckets_; ++b) {
      for (HashMapMember* m = buckets_[b]; m != chainEnd(); m = m->fwkHmNext_) {
        f(static_cast<V&>(*m));
        VIX_ASSERT(generation == generation_, "HashMap::forEach: the map changed during the walk");
      }
    }
  }

  Iterator begin() const { return Iterator(this, findNextBucketG(0)); }
  End end() const { return End(); }
  // The member with `key` if present, else the one that would follow it.
  Iterator startAtHash(const K& key) const {
    return Iterator(this, findNextG(Hash<K>::position(key), &key, true));
  }

  class Iterator {
   public:
    V* operator->() const { return current_.operator->(); }
    V& operator*() const { return *current_; }
    const Ptr<V>& ptr() const { return current_; }
    bool atEnd() const { return !current_; }
    explicit operator bool() const { return !atEnd(); }
    bool operator!=(End) const { return !atEnd(); }
    bool operator==(End) const { return atEnd(); }

    Iterator& operator++() {
      const HashMapMember* m = current_.get();
      HashMapMember* next;
      if (generation_ == map_->generation_) {
        next = m->fwkHmNext_ != chainEnd()
                   ? m->fwkHmNext_
                   : map_->nextBucketPrefetching(map_->bucketOf(m->fwkHmPosition_) + 1);
      } else {
        next = map_->findNextG(m->fwkHmPosition_, &current_->key(), false);
        generation_ = map_->generation_;
      }
      current_ = static_cast<V*>(next);
      return *this;
    }

   private:
    friend class HashMap;
    Iterator(const HashMap* map, HashMapMember* first)
        : map_(map), current_(static_cast<V*>(first)), generation_(map->generation_) {}
    const HashMap* map_;
    Ptr<V> current_;
    uint32_t generation_;
  };

 private:
  static const void* keyOf(const HashMapMember* m) { return &static_cast<const V*>(m)->key(); }
  static uint32_t positionOf(const void* k) { return Hash<K>::position(*static_cast<const K*>(k)); }
  static bool equalKeys(const void* a, const void* b) {
    return *static_cast<const K*>(a) == *static_cast<const K*>(b);
  }
  static bool lessKeys(const void* a, const void* b) {
    return *static_cast<const K*>(a) < *static_cast<const K*>(b);
  }
  static void release(HashMapMember* m) { m->referenceDec(); }
  static constexpr HashMapVTable kVTable{keyOf, positionOf, equalKeys, lessKeys, release};
};

}  // namespace Vix
