// Waymark::ShadowIndex: the sub-rules of one policy seen so far, indexed so
// that the linter finds the first earlier sub-rule covering a new one without
// comparing it with every earlier one. ConfigLinter builds one per policy.
//
// A cover has the inner rule's family, its protocol or none, a source and a
// destination prefix that contain the inner ones, ports that contain the
// inner ones and a subset of its TCP flags. Sub-rules are kept in buckets by
// family, protocol and the two prefixes; a query visits only the buckets of
// prefixes that contain the inner ones (for the prefix lengths in use), and
// in each bucket only the sub-rules whose ports hold the inner rule's first
// port (a stabbing query over the port space). Of sub-rules with the same
// ports and flags in one bucket only the first is kept: a later one can never
// be the first cover. A query thus costs the lengths in use times the
// candidates that really hold the probed ports, not the policy's size.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "policymap/AclRuleConfig.h"

namespace Waymark {

class ShadowIndex {
 public:
  ShadowIndex();
  ~ShadowIndex();
  ShadowIndex(const ShadowIndex&) = delete;
  ShadowIndex& operator=(const ShadowIndex&) = delete;

  // Adds the sub-rule of `rule` with flags `flags`; `id` names it in the
  // answers. REQUIRES: `rule` outlives the index.
  void add(const Acl::AclRuleConfig& rule, uint8_t flags, size_t id);
  // The id of the first added sub-rule that covers `rule` with `flags`.
  std::optional<size_t> firstCover(const Acl::AclRuleConfig& rule, uint8_t flags) const;

 private:
  struct Bucket;
  // Family, protocol (256 for any), source and destination prefix lengths
  // (-1 for any) and the prefixes' networks.
  using Key = std::tuple<bool, uint16_t, int, Velnet::IpGenAddr, int, Velnet::IpGenAddr>;

  struct KeyHash {
    size_t operator()(const Key& k) const;
  };

  std::unordered_map<Key, std::unique_ptr<Bucket>, KeyHash> buckets_;
  // The prefix lengths in use per family (false: IPv4), -1 for any.
  std::set<int> srcLengths_[2];
  std::set<int> dstLengths_[2];
};

}  // namespace Waymark
