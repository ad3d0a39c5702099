// Routing6::Trie: the IPv6 twin of Routing::Trie ("PBRL3IntfTrie6").
#pragma once

#include <optional>
#include <string>

#include "framework/Entity.h"
#include "platform/Ip6Prefix.h"
#include "platform/PrefixTrie.h"

namespace Routing6 {

class Trie : public Vix::Entity {
 public:
  explicit Trie(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  void routeIs(const Velnet::Ip6Prefix& prefix, bool present) {
    present ? trie_.insert(prefix) : trie_.remove(prefix);
  }
  void routeDel(const Velnet::Ip6Prefix& prefix) { trie_.remove(prefix); }
  bool route(const Velnet::Ip6Prefix& prefix) const { return trie_.contains(prefix); }
  std::optional<Velnet::Ip6Prefix> longestMatch(const Velnet::Ip6Prefix& prefix) const {
    return trie_.longestMatch(prefix);
  }
  uint32_t routes() const { return trie_.routes(); }

 private:
  std::string name_;
  Routing::PrefixTrie<Velnet::Ip6Prefix> trie_;
};

}  // namespace Routing6
