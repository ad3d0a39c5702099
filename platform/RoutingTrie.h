// Routing::Trie: the prefix trie of the router's connected IPv4 subnets that
// the nexthop table manager keeps ("PBRL3IntfTrie"): routeIs inserts a
// prefix, routeDel removes it, longestMatch finds the most specific stored
// prefix covering an address given as a host prefix.
#pragma once

#include <optional>
#include <string>

#include "framework/Entity.h"
#include "platform/Prefix.h"
#include "platform/PrefixTrie.h"

namespace Routing {

class Trie : public Vix::Entity {
 public:
  explicit Trie(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  // Stores (true) or removes (false) `prefix`.
  void routeIs(const Velnet::Prefix& prefix, bool present) {
    present ? trie_.insert(prefix) : trie_.remove(prefix);
  }
  void routeDel(const Velnet::Prefix& prefix) { trie_.remove(prefix); }
  bool route(const Velnet::Prefix& prefix) const { return trie_.contains(prefix); }
  std::optional<Velnet::Prefix> longestMatch(const Velnet::Prefix& prefix) const {
    return trie_.longestMatch(prefix);
  }
  uint32_t routes() const { return trie_.routes(); }

 private:
  std::string name_;
  PrefixTrie<Velnet::Prefix> trie_;
};

}  // namespace Routing
