// Vix::ValueMap<Key, Value>: a HashMap whose members are plain key/value
// pairs, for the many collection attributes that map a key to a number, a
// flag or an address (reference counts, marks, reverse maps, waiting sets).
//
// Mutators report whether anything changed, so that the owning entity can
// notify its notifiees only on a real change, as the accessor convention asks.
#pragma once

#include <optional>

#include "framework/HashMap.h"

namespace Vix {

template <class K, class V>
class HashMapEntry : public HashMapMember {
 public:
  HashMapEntry(const K& key, const V& value) : key_(key), value_(value) {}
  const K& key() const { return key_; }
  const V& value() const { return value_; }
  void valueIs(const V& value) { value_ = value; }

 private:
  const K key_;
  V value_;
};

template <class K, class V>
class ValueMap {
 public:
  using Entry = HashMapEntry<K, V>;
  using Map = HashMap<Entry, K>;
  using Iterator = typename Map::Iterator;

  uint32_t members() const { return map_.members(); }
  bool empty() const { return map_.empty(); }
  const V* find(const K& key) const {
    const Entry* e = map_.find(key);
    return e ? &e->value() : nullptr;
  }
  bool contains(const K& key) const { return map_.find(key) != nullptr; }
  // The value under `key`, or `absent` when there is none.
  V value(const K& key, const V& absent = V()) const {
    const Entry* e = map_.find(key);
    return e ? e->value() : absent;
  }

  // Inserts or updates; true when the map changed.
  bool valueIs(const K& key, const V& value) {
    if (Entry* e = map_.find(key)) {
      if (e->value() == value) return false;
      e->valueIs(value);
      return true;
    }
    map_.newMember(make<Entry>(key, value));
    return true;
  }
  // Removes `key`; the removed value, or nothing when it was absent.
  std::optional<V> del(const K& key) {
    const Ptr<Entry> removed = map_.memberDel(key);
    if (!removed) return std::nullopt;
    return removed->value();
  }
  void delAll() { map_.deleteAll(); }

  // Calls f(key, value) for every entry; see HashMap::forEach.
  template <class F>
  void forEach(F&& f) const {
    map_.forEach([&](const Entry& e) { f(e.key(), e.value()); });
  }

  Iterator begin() const { return map_.begin(); }
  typename Map::End end() const { return map_.end(); }
  Iterator startAtHash(const K& key) const { return map_.startAtHash(key); }
  const Map& map() const { return map_; }

 private:
  Map map_;
};

}  // namespace Vix
