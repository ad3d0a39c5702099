// Hash functions of the keyed collections.
//
// Vix::Hash<K> gives a key's 32-bit hash: integral keys use Thomas Wang's
// 32-bit integer hash, every other key type its own `hash()` member. Vix::
// bitReverse turns a hash into the position value that orders a HashMap.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Vix {

// Thomas Wang's 32-bit integer hash; every step is taken modulo 2^32.
constexpr uint32_t wangHash32(uint32_t x) {
  x = ~x + (x << 15);
  x = x ^ (x >> 12);
  x = x * 5;
  x = x ^ (x >> 4);
  x = x * 2057;
  x = x ^ (x >> 16);
  return x;
}

// Bit 0 becomes bit 31, bit 1 becomes bit 30, and so on.
constexpr uint32_t bitReverse(uint32_t x) {
  x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
  x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
  x = ((x >> 4) & 0x0f0f0f0fu) | ((x & 0x0f0f0f0fu) << 4);
  x = ((x >> 8) & 0x00ff00ffu) | ((x & 0x00ff00ffu) << 8);
  return (x >> 16) | (x << 16);
}

// FNV-1a over bytes, for names and byte strings.
constexpr uint32_t fnv1a32(std::string_view bytes) {
  uint32_t h = 2166136261u;
  for (const char c : bytes) {
    h ^= static_cast<unsigned char>(c);
    h *= 16777619u;
  }
  return h;
}

// Hash<K>()(k) is the key's hash; Hash<K>::position(k) is bitReverse of it,
// the value a HashMap orders and buckets by.
template <class K, class = void>
struct Hash {
  uint32_t operator()(const K& k) const { return k.hash(); }
  static uint32_t position(const K& k) { return bitReverse(k.hash()); }
};

// Integral keys hash to the bit reverse of a Fibonacci product, so that their
// position value is the product itself: one multiply per lookup, and the
// product's top bits, which choose the bucket, are its best mixed ones.
template <class K>
struct Hash<K, std::enable_if_t<std::is_integral_v<K> || std::is_enum_v<K>>> {
  uint32_t operator()(K k) const { return bitReverse(position(k)); }
  static uint32_t position(K k) {
    const auto v = static_cast<uint64_t>(k);
    return static_cast<uint32_t>(((v ^ (v >> 32)) * 0x9e3779b97f4a7c15ull) >> 32);
  }
};

template <>
struct Hash<std::string> {
  uint32_t operator()(const std::string& k) const { return fnv1a32(k); }
  static uint32_t position(const std::string& k) { return bitReverse(fnv1a32(k)); }
};

}  // namespace Vix
