#include "framework/HashMap.h"

#include <vector>

namespace Vix {

namespace {
// The table starts at this many buckets and never shrinks below it while it
// holds members; it grows past one member per bucket and shrinks below one
// member per four buckets, so a grow is never undone by the next delete.
constexpr uint32_t kMinBucketBits = 3;
constexpr uint32_t kMaxBucketBits = 30;
}  // namespace

HashMapMember HashMapBase::chainEnd_;

HashMapMember* HashMapBase::findNextG(uint32_t position, const void* key, bool inclusive) const {
  if (numBuckets_ == 0) return nullptr;
  const uint32_t bucket = bucketOf(position);
  for (HashMapMember* m = buckets_[bucket]; m != chainEnd(); m = m->fwkHmNext_) {
    if (m->fwkHmPosition_ < position) continue;
    if (m->fwkHmPosition_ > position) return m;
    const void* mk = vtable_->key(m);
    if (inclusive ? !vtable_->less(mk, key) : vtable_->less(key, mk)) return m;
  }
  return findNextBucketG(bucket + 1);
}

void HashMapBase::ensureBucketsG() {
  if (numBuckets_ == 0) resizeG(kMinBucketBits);
}

void HashMapBase::linkG(HashMapMember* t) {
  ensureBucketsG();
  const void* key = vtable_->key(t);
  HashMapMember** link = &buckets_[bucketOf(t->fwkHmPosition_)];
  for (HashMapMember* m = *link; m != chainEnd(); link = &m->fwkHmNext_, m = *link) {
    if (m->fwkHmPosition_ < t->fwkHmPosition_) continue;
    if (m->fwkHmPosition_ > t->fwkHmPosition_) break;
    const void* mk = vtable_->key(m);
    if (vtable_->less(key, mk)) break;
    VIX_ASSERT(!vtable_->equal(key, mk), "member key already present");
  }
  t->fwkHmNext_ = *link;
  *link = t;
  ++count_;
  maybeGrowG();
}

HashMapMember* HashMapBase::memberDelG(const void* key) {
  if (numBuckets_ == 0) return nullptr;
  const uint32_t position = vtable_->position(key);
  HashMapMember** link = &buckets_[bucketOf(position)];
  for (HashMapMember* m = *link; m != chainEnd(); link = &m->fwkHmNext_, m = *link) {
    if (m->fwkHmPosition_ < position) continue;
    if (m->fwkHmPosition_ > position) return nullptr;
    if (!vtable_->equal(vtable_->key(m), key)) continue;
    *link = m->fwkHmNext_;
    m->fwkHmNext_ = nullptr;
    --count_;
    ++generation_;
    maybeShrinkG();
    return m;
  }
  return nullptr;
}

void HashMapBase::deleteMemberG(HashMapMember* member) {
  HashMapMember* removed = memberDelG(vtable_->key(member));
  VIX_ASSERT(removed == member, "member of this collection");
}

void HashMapBase::deleteAllG() {
  emptyAllBucketsG();
  ++generation_;
}

// Detaches every member before releasing any, so that a member whose
// destructor reaches back into this collection finds it already empty.
void HashMapBase::emptyAllBucketsG() {
  if (count_ == 0) {
    buckets_.reset();
    numBuckets_ = bucketBits_ = 0;
    return;
  }
  std::vector<HashMapMember*> detached;
  detached.reserve(count_);
  for (uint32_t b = 0; b < numBuckets_; ++b) {
    for (HashMapMember* m = buckets_[b]; m != chainEnd();) {
      HashMapMember* next = m->fwkHmNext_;
      m->fwkHmNext_ = nullptr;
      detached.push_back(m);
      m = next;
    }
  }
  buckets_.reset();
  numBuckets_ = bucketBits_ = count_ = 0;
  for (HashMapMember* m : detached) vtable_->release(m);
}

void HashMapBase::maybeGrowG() {
  if (count_ > numBuckets_ && bucketBits_ < kMaxBucketBits) resizeG(bucketBits_ + 1);
}

void HashMapBase::maybeShrinkG() {
  if (count_ == 0) {
    buckets_.reset();
    numBuckets_ = bucketBits_ = 0;
    ++generation_;
    return;
  }
  if (bucketBits_ > kMinBucketBits && count_ < numBuckets_ / 4) resizeG(bucketBits_ - 1);
}

// Rebuilds the buckets for 2^bits. The sorted sequence of members does not
// change, so the members are relinked in order without comparing keys: each
// new bucket takes a run of the sequence.
void HashMapBase::resizeG(uint32_t bits) {
  const uint32_t n = 1u << bits;
  auto fresh = std::make_unique<HashMapMember*[]>(n);
  std::fill_n(fresh.get(), n, chainEnd());
  uint32_t lastBucket = n;  // none yet
  HashMapMember** tail = nullptr;
  for (uint32_t b = 0; b < numBuckets_; ++b) {
    for (HashMapMember* m = buckets_[b]; m != chainEnd();) {
      HashMapMember* next = m->fwkHmNext_;
      const uint32_t nb = bits == 0 ? 0 : m->fwkHmPosition_ >> (32 - bits);
      if (nb != lastBucket) {
        tail = &fresh[nb];
        lastBucket = nb;
      }
      m->fwkHmNext_ = chainEnd();
      *tail = m;
      tail = &m->fwkHmNext_;
      m = next;
    }
  }
  buckets_ = std::move(fresh);
  numBuckets_ = n;
  bucketBits_ = bits;
  ++generation_;
}

}  // namespace Vix
