// Routing::Trie: the prefix trie of the router's connected IPv4 subnets.
#pragma once

#include "platform/NamedTrie.h"
#include "platform/Prefix.h"

namespace Routing {
using Trie = NamedTrie<Velnet::Prefix>;
}  // namespace Routing
