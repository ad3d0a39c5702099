// Routing6::Trie: the prefix trie of the router's connected IPv6 subnets.
#pragma once

#include "net/Ip6Prefix.h"
#include "net/NamedTrie.h"

namespace Routing6 {
using Trie = Routing::NamedTrie<Velnet::Ip6Prefix>;
}  // namespace Routing6
