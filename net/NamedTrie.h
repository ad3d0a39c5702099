// A named prefix trie entity: the connected-subnet tries of the nexthop
// table manager (Routing::Trie, "PBRL3IntfTrie", and Routing6::Trie,
// "PBRL3IntfTrie6"). routeIs inserts a prefix, routeDel removes it,
// longestMatch finds the most specific stored prefix covering an address
// given as a host prefix.
#pragma once

#include <optional>
#include <string>

#include "framework/Entity.h"
#include "net/PrefixTrie.h"

namespace Routing {

template <class P>
class NamedTrie : public Vix::Entity {
 public:
  explicit NamedTrie(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  // Stores (true) or removes (false) `prefix`.
  void routeIs(const P& prefix, bool present) {
    present ? trie_.insert(prefix) : trie_.remove(prefix);
  }
  void routeDel(const P& prefix) { trie_.remove(prefix); }
  bool route(const P& prefix) const { return trie_.contains(prefix); }
  std::optional<P> longestMatch(const P& prefix) const { return trie_.longestMatch(prefix); }
  uint32_t routes() const { return trie_.routes(); }

 private:
  std::string name_;
  PrefixTrie<P> trie_;
};

}  // namespace Routing
