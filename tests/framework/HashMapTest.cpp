#include "framework/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

using Vix::bitReverse;
using Vix::HashMap;
using Vix::make;
using Vix::Ptr;

template <class K>
class Item : public Vix::HashMapMember {
 public:
  explicit Item(const K& key) : key_(key) { ++alive; }
  ~Item() override { --alive; }
  const K& key() const { return key_; }
  static inline int alive = 0;

 private:
  K key_;
};

// A key whose hash the test chooses, to set up collisions.
struct CollidingKey {
  uint32_t h;
  uint32_t id;
  uint32_t hash() const { return h; }
  bool operator==(const CollidingKey&) const = default;
  bool operator<(const CollidingKey& o) const { return std::tie(id, h) < std::tie(o.id, o.h); }
};

using IntItem = Item<uint32_t>;
using IntMap = HashMap<IntItem, uint32_t>;

std::pair<uint32_t, uint32_t> sortKey(uint32_t k) {
  return {bitReverse(Vix::Hash<uint32_t>()(k)), k};
}

// The one order a map may iterate in: ascending (bitReverse(hash), key).
std::vector<uint32_t> expectedOrder(const std::set<uint32_t>& keys) {
  std::vector<uint32_t> v(keys.begin(), keys.end());
  std::sort(v.begin(), v.end(), [](uint32_t a, uint32_t b) { return sortKey(a) < sortKey(b); });
  return v;
}

std::vector<uint32_t> iterationOrder(const IntMap& m) {
  std::vector<uint32_t> v;
  for (auto it = m.begin(); it != m.end(); ++it) v.push_back(it->key());
  return v;
}

bool validBucketCount(uint32_t n) { return n == 0 || (n & (n - 1)) == 0; }

TEST(HashMapTest, IteratesInPositionThenKeyOrderForRandomKeySets) {
  for (uint32_t trial = 0; trial < 50; ++trial) {
    std::mt19937 rng(trial);
    IntMap m;
    std::set<uint32_t> keys;
    const uint32_t n = rng() % 3000;
    while (keys.size() < n) {
      const uint32_t k = rng() % (trial % 2 ? 5000 : 0xffffffffu);
      if (keys.insert(k).second) m.newMember(make<IntItem>(k));
    }
    ASSERT_EQ(m.members(), keys.size());
    EXPECT_EQ(iterationOrder(m), expectedOrder(keys)) << "trial " << trial;
  }
}

TEST(HashMapTest, OrderIsUnchangedAcrossEveryGrowAndShrink) {
  for (uint32_t trial = 0; trial < 20; ++trial) {
    std::mt19937 rng(trial);
    IntMap m;
    std::set<uint32_t> keys;
    int grows = 0;
    int shrinks = 0;
    auto check = [&](uint32_t bucketsBefore) {
      ASSERT_TRUE(validBucketCount(m.buckets()));
      if (m.buckets() == bucketsBefore) return;
      (m.buckets() > bucketsBefore ? grows : shrinks)++;
      ASSERT_EQ(iterationOrder(m), expectedOrder(keys)) << "trial " << trial;
    };
    while (keys.size() < 2500) {
      const uint32_t k = rng();
      if (!keys.insert(k).second) continue;
      const uint32_t before = m.buckets();
      m.newMember(make<IntItem>(k));
      check(before);
    }
    while (!keys.empty()) {
      auto it = keys.begin();
      std::advance(it, rng() % keys.size());
      const uint32_t before = m.buckets();
      ASSERT_TRUE(m.memberDel(*it));
      keys.erase(it);
      check(before);
    }
    EXPECT_GT(grows, 5);
    EXPECT_GT(shrinks, 5);
    EXPECT_EQ(m.buckets(), 0u);
  }
}

TEST(HashMapTest, EqualHashKeysAreOrderedByKeyAndBookmarksTellThemApart) {
  HashMap<Item<CollidingKey>, CollidingKey> m;
  for (const CollidingKey k : {CollidingKey{7, 3}, {7, 1}, {1, 9}, {7, 2}}) {
    m.newMember(make<Item<CollidingKey>>(k));
  }
  // bitReverse(1) = 0x80000000 sorts before bitReverse(7) = 0xe0000000.
  std::vector<uint32_t> ids;
  for (auto it = m.begin(); it != m.end(); ++it) ids.push_back(it->key().id);
  EXPECT_EQ(ids, (std::vector<uint32_t>{9, 1, 2, 3}));

  EXPECT_EQ(m.startAtHash({7, 2})->key().id, 2u);
  EXPECT_EQ(m.startAtHash({7, 0})->key().id, 1u);
  ASSERT_TRUE(m.memberDel({7, 2}));
  EXPECT_EQ(m.startAtHash({7, 2})->key().id, 3u);
  EXPECT_TRUE(m.startAtHash({7, 4}).atEnd());
  EXPECT_EQ(m.find({7, 3})->key().id, 3u);
  EXPECT_EQ(m.find({8, 3}), nullptr);
}

TEST(HashMapTest, ResumingAtTheKeyOfADeletedMemberContinuesWithItsSuccessor) {
  IntMap m;
  std::set<uint32_t> keys;
  for (uint32_t k = 0; k < 100; ++k) {
    keys.insert(k);
    m.newMember(make<IntItem>(k));
  }
  const std::vector<uint32_t> order = expectedOrder(keys);
  const uint32_t bookmark = order[40];
  ASSERT_TRUE(m.memberDel(bookmark));
  EXPECT_EQ(m.startAtHash(bookmark)->key(), order[41]);
}

// The deferred programming loop walks a queue in slices, keeping the key of the
// entry it stands on as a bookmark; between slices the queue changes and may
// be resized. Every entry that existed throughout must be visited exactly
// once, in order, whatever happened in between.
TEST(HashMapTest, BookmarkResumesOverChurnVisitingEverySurvivorExactlyOnce) {
  for (uint32_t trial = 0; trial < 100; ++trial) {
    std::mt19937 rng(trial);
    IntMap m;
    std::set<uint32_t> present;
    std::set<uint32_t> touched;  // deleted or inserted after the walk began
    for (uint32_t i = 0; i < 300 + rng() % 700; ++i) {
      const uint32_t k = rng() % 100000;
      if (present.insert(k).second) m.newMember(make<IntItem>(k));
    }
    const std::set<uint32_t> initial = present;
    std::vector<uint32_t> visited;
    auto it = m.begin();
    while (!it.atEnd()) {
      for (uint32_t steps = 1 + rng() % 25; steps > 0 && !it.atEnd(); --steps, ++it) {
        visited.push_back(it->key());
      }
      if (it.atEnd()) break;
      const uint32_t bookmark = it->key();
      const bool bulk = rng() % 5 == 0;
      for (uint32_t n = bulk ? 400 : rng() % 8; n > 0 && !present.empty(); --n) {
        auto victim = present.begin();
        std::advance(victim, rng() % present.size());
        ASSERT_TRUE(m.memberDel(*victim));
        touched.insert(*victim);
        present.erase(victim);
      }
      for (uint32_t n = bulk ? 500 : rng() % 8; n > 0; --n) {
        const uint32_t k = rng() % 100000;
        if (!present.insert(k).second) continue;
        touched.insert(k);
        m.newMember(make<IntItem>(k));
      }
      it = m.startAtHash(bookmark);
    }
    for (size_t i = 1; i < visited.size(); ++i) {
      ASSERT_LT(sortKey(visited[i - 1]), sortKey(visited[i])) << "trial " << trial;
    }
    for (const uint32_t k : initial) {
      if (touched.count(k) != 0) continue;
      ASSERT_EQ(std::count(visited.begin(), visited.end(), k), 1) << "trial " << trial;
    }
  }
}

TEST(HashMapTest, IteratorStepsPastAMemberDeletedUnderIt) {
  IntMap m;
  std::set<uint32_t> keys;
  for (uint32_t k = 0; k < 500; ++k) {
    keys.insert(k * 7919);
    m.newMember(make<IntItem>(k * 7919));
  }
  std::vector<uint32_t> visited;
  for (auto it = m.begin(); !it.atEnd(); ++it) {
    visited.push_back(it->key());
    m.memberDel(it->key());
  }
  EXPECT_EQ(visited, expectedOrder(keys));
  EXPECT_TRUE(m.empty());
}

TEST(HashMapTest, ForEachWalksTheSameOrderAsTheIterator) {
  IntMap m;
  std::set<uint32_t> keys;
  for (uint32_t k = 0; k < 300; ++k) {
    keys.insert(k * 104729);
    m.newMember(make<IntItem>(k * 104729));
  }
  std::vector<uint32_t> walked;
  m.forEach([&](const IntItem& item) { walked.push_back(item.key()); });
  EXPECT_EQ(walked, expectedOrder(keys));
}

TEST(HashMapDeathTest, ForEachAbortsWhenTheWalkRemovesAMember) {
  IntMap m;
  for (uint32_t k = 0; k < 10; ++k) m.newMember(make<IntItem>(k));
  EXPECT_DEATH(m.forEach([&](const IntItem& item) { m.memberDel(item.key()); }),
               "the map changed during the walk");
}

TEST(HashMapTest, EmptyTableHasNoBucketsAndIteratesAsEmpty) {
  IntMap m;
  EXPECT_EQ(m.buckets(), 0u);
  EXPECT_EQ(m.find(3), nullptr);
  EXPECT_FALSE(m.memberDel(3));
  EXPECT_TRUE(m.begin().atEnd());
  EXPECT_TRUE(m.startAtHash(3).atEnd());
  m.newMember(make<IntItem>(3));
  EXPECT_GT(m.buckets(), 0u);
  m.memberDel(3);
  EXPECT_EQ(m.buckets(), 0u);
  EXPECT_TRUE(m.begin().atEnd());
}

TEST(HashMapTest, HoldsOneReferencePerMemberAndHandsTheRemovedOneBack) {
  const int aliveBefore = IntItem::alive;
  {
    IntMap m;
    Ptr<IntItem> item = make<IntItem>(5);
    m.newMember(item);
    EXPECT_EQ(item->references(), 2u);
    Ptr<IntItem> removed = m.memberDel(5);
    EXPECT_EQ(removed, item);
    EXPECT_EQ(item->references(), 2u);
    EXPECT_EQ(removed->fwkHmNext(), nullptr);
    removed = nullptr;
    EXPECT_EQ(item->references(), 1u);
    for (uint32_t k = 10; k < 60; ++k) m.newMember(make<IntItem>(k));
    m.deleteAll();
    EXPECT_TRUE(m.empty());
    EXPECT_EQ(IntItem::alive, aliveBefore + 1);
    for (uint32_t k = 10; k < 60; ++k) m.newMember(make<IntItem>(k));
  }
  EXPECT_EQ(IntItem::alive, aliveBefore);
}

TEST(HashMapDeathTest, InsertingAMemberThatIsAlreadyLinkedAborts) {
  IntMap first;
  IntMap second;
  const Ptr<IntItem> item = make<IntItem>(1);
  first.newMember(item);
  EXPECT_DEATH(second.newMember(item), "t->fwkHmNext\\(\\) == 0");
}

}  // namespace
