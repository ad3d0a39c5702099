// Routing::PrefixTrie<P>: a path-compressed binary trie of prefixes with
// insert, delete and longest match, for Velnet::Prefix and Velnet::Ip6Prefix.
//
// Each node stands for one prefix; a node exists either because that prefix
// was inserted (it carries a route) or because two stored prefixes branch
// there. Every step down a branch consumes at least one bit, so an operation
// costs at most one node visit per address bit (32 or 128), however many
// prefixes are stored. Keys are held as 64-bit words, most significant bit
// first, so both families share one implementation.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <optional>

#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Routing {

// How a prefix type maps onto trie keys.
template <class P>
struct PrefixBits;

template <>
struct PrefixBits<Velnet::Prefix> {
  static constexpr int kWords = 1;
  using Key = std::array<uint64_t, kWords>;
  static Key key(const Velnet::Prefix& p) { return {uint64_t{p.network().value()} << 32}; }
  static Velnet::Prefix prefix(const Key& k, int len) {
    return Velnet::Prefix(Velnet::IpAddr(static_cast<uint32_t>(k[0] >> 32)), len);
  }
};

template <>
struct PrefixBits<Velnet::Ip6Prefix> {
  static constexpr int kWords = 2;
  using Key = std::array<uint64_t, kWords>;
  static Key key(const Velnet::Ip6Prefix& p) {
    Key k{};
    const auto& b = p.network().bytes();
    for (int i = 0; i < 16; ++i) k[i / 8] |= uint64_t{b[i]} << (56 - 8 * (i % 8));
    return k;
  }
  static Velnet::Ip6Prefix prefix(const Key& k, int len) {
    Velnet::Ip6Addr::Bytes b{};
    for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>(k[i / 8] >> (56 - 8 * (i % 8)));
    return Velnet::Ip6Prefix(Velnet::Ip6Addr(b), len);
  }
};

template <class P>
class PrefixTrie {
 public:
  using Bits = PrefixBits<P>;
  using Key = typename Bits::Key;

  PrefixTrie() : root_(std::make_unique<Node>(Key{}, 0)) {}

  // Stores `prefix`; true when it was not stored before.
  bool insert(const P& prefix) {
    const Key k = Bits::key(prefix);
    const int len = prefix.maskLen();
    Node* n = root_.get();
    while (n->len < len) {
      std::unique_ptr<Node>& slot = n->child[bit(k, n->len)];
      if (!slot) {
        slot = std::make_unique<Node>(k, len);
        return stored(slot.get());
      }
      const int common = commonLength(slot->key, k, std::min<int>(slot->len, len));
      if (common < slot->len) {
        // `prefix` branches off inside the compressed path: a node at the
        // branching point takes the old subtree under it.
        auto branch = std::make_unique<Node>(masked(k, common), common);
        const int oldSide = bit(slot->key, common);
        branch->child[oldSide] = std::move(slot);
        slot = std::move(branch);
        if (common == len) return stored(slot.get());
        slot->child[1 - oldSide] = std::make_unique<Node>(k, len);
        return stored(slot->child[1 - oldSide].get());
      }
      n = slot.get();
    }
    return stored(n);
  }

  // Removes `prefix`; true when it was stored.
  bool remove(const P& prefix) {
    const Key k = Bits::key(prefix);
    const int len = prefix.maskLen();
    Node* parent = nullptr;
    std::unique_ptr<Node>* slot = nullptr;
    Node* n = root_.get();
    while (n->len < len) {
      std::unique_ptr<Node>& next = n->child[bit(k, n->len)];
      if (!next || next->len > len || commonLength(next->key, k, next->len) < next->len) {
        return false;
      }
      parent = n;
      slot = &next;
      n = next.get();
    }
    if (n->len != len || !n->route) return false;
    n->route = false;
    --routes_;
    if (slot != nullptr) {
      prune(*slot);
      if (parent != root_.get()) prunePath(parent, k);
    }
    return true;
  }

  // The most specific stored prefix that covers `prefix`, or none.
  std::optional<P> longestMatch(const P& prefix) const {
    const Key k = Bits::key(prefix);
    const int len = prefix.maskLen();
    const Node* best = nullptr;
    const Node* n = root_.get();
    while (true) {
      if (n->route) best = n;
      if (n->len >= len) break;
      const Node* next = n->child[bit(k, n->len)].get();
      if (next == nullptr || next->len > len || commonLength(next->key, k, next->len) < next->len) {
        break;
      }
      n = next;
    }
    if (best == nullptr) return std::nullopt;
    return Bits::prefix(best->key, best->len);
  }

  bool contains(const P& prefix) const {
    const auto m = longestMatch(prefix);
    return m && *m == prefix;
  }
  uint32_t routes() const { return routes_; }

 private:
  struct Node {
    Node(const Key& k, int l) : key(masked(k, l)), len(l) {}
    Key key;
    int len;
    bool route = false;
    std::unique_ptr<Node> child[2];
  };

  static int bit(const Key& k, int i) { return static_cast<int>((k[i / 64] >> (63 - i % 64)) & 1); }
  static int commonLength(const Key& a, const Key& b, int maxLen) {
    for (int w = 0; w < Bits::kWords; ++w) {
      const uint64_t x = a[w] ^ b[w];
      if (x != 0) return std::min(maxLen, 64 * w + std::countl_zero(x));
    }
    return maxLen;
  }
  static Key masked(const Key& k, int len) {
    Key out{};
    for (int w = 0; w < Bits::kWords; ++w) {
      const int bits = len - 64 * w;
      if (bits >= 64) {
        out[w] = k[w];
      } else if (bits > 0) {
        out[w] = k[w] & (~uint64_t{0} << (64 - bits));
      }
    }
    return out;
  }

  bool stored(Node* n) {
    if (n->route) return false;
    n->route = true;
    ++routes_;
    return true;
  }

  // A node without a route needs two children to be worth keeping: with none
  // it goes, with one it is replaced by that child.
  static void prune(std::unique_ptr<Node>& slot) {
    Node* n = slot.get();
    if (n->route) return;
    if (n->child[0] && n->child[1]) return;
    std::unique_ptr<Node> only = std::move(n->child[n->child[0] ? 0 : 1]);
    slot = std::move(only);
  }
  // Prunes the non-root node `target` that lies on the path of `k`.
  void prunePath(Node* target, const Key& k) {
    Node* n = root_.get();
    while (n != nullptr) {
      std::unique_ptr<Node>& next = n->child[bit(k, n->len)];
      if (next.get() == target) {
        prune(next);
        return;
      }
      n = next.get();
    }
  }

  std::unique_ptr<Node> root_;
  uint32_t routes_ = 0;
};

}  // namespace Routing
