// Routing::Trie: the prefix trie of the router's connected IPv4 subnets.
#pragma once

#include "net/NamedTrie.h"
#include "net/Prefix.h"

namespace Routing {
using Trie = NamedTrie<Velnet::Prefix>;
}  // namespace Routing
