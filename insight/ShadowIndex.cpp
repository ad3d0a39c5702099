#include "insight/ShadowIndex.h"

#include <algorithm>
#include <functional>

#include "insight/ConfigLinter.h"
#include "net/Ip6Prefix.h"
#include "net/Prefix.h"

namespace Waymark {

namespace {

constexpr uint16_t kAnyProtocol = 256;
constexpr int kAnyAddress = -1;

// The network of the prefix of length `len` that holds `a`.
Velnet::IpGenAddr network(const Velnet::IpGenAddr& a, int len) {
  if (len == kAnyAddress) return {};
  if (a.isV4()) return Velnet::Prefix(a.v4(), len).network();
  return Velnet::Ip6Prefix(a.v6(), len).network();
}

int lengthOf(const Acl::AddrSpec& address) { return address.any ? kAnyAddress : address.len; }

// Sets of port intervals over 0-65535 as a segment tree kept sparse: an
// interval is stored at the O(log) nodes that tile it, so the intervals that
// hold one port are those stored on the path from the root to its leaf.
class PortStab {
 public:
  void add(const std::vector<std::pair<uint32_t, uint32_t>>& intervals, uint32_t entry) {
    all_.push_back(entry);
    for (const auto& [lo, hi] : intervals) insert(1, 0, kPorts - 1, lo, hi, entry);
  }
  // Every entry holding `port`; every entry at all when there is no port to
  // probe (an inner rule that matches no port is inside any ports).
  template <class Visit>
  void visit(std::optional<uint32_t> port, const Visit& v) const {
    if (!port) {
      for (const uint32_t e : all_) v(e);
      return;
    }
    uint32_t node = 1;
    uint32_t lo = 0;
    uint32_t hi = kPorts - 1;
    while (true) {
      if (const auto it = nodes_.find(node); it != nodes_.end()) {
        for (const uint32_t e : it->second) v(e);
      }
      if (lo == hi) return;
      const uint32_t mid = (lo + hi) / 2;
      node *= 2;
      if (*port <= mid) {
        hi = mid;
      } else {
        lo = mid + 1;
        ++node;
      }
    }
  }

 private:
  static constexpr uint32_t kPorts = 65536;

  void insert(uint32_t node, uint32_t lo, uint32_t hi, uint32_t from, uint32_t to, uint32_t entry) {
    if (to < lo || hi < from) return;
    if (from <= lo && hi <= to) {
      nodes_[node].push_back(entry);
      return;
    }
    const uint32_t mid = (lo + hi) / 2;
    insert(node * 2, lo, mid, from, to, entry);
    insert(node * 2 + 1, mid + 1, hi, from, to, entry);
  }

  std::unordered_map<uint32_t, std::vector<uint32_t>> nodes_;
  std::vector<uint32_t> all_;
};

std::optional<uint32_t> probe(const Acl::PortSpec& ports) {
  const auto intervals = ports.intervals();
  if (intervals.empty()) return std::nullopt;
  return intervals.front().first;
}

}  // namespace

struct ShadowIndex::Bucket {
  struct Entry {
    const Acl::AclRuleConfig* rule;
    uint8_t flags;
    size_t id;
  };
  using Shape =
      std::tuple<Acl::PortOp, std::vector<uint16_t>, Acl::PortOp, std::vector<uint16_t>, uint8_t>;

  std::vector<Entry> entries;
  std::set<Shape> shapes;
  // Entries with any source and destination ports (one per flag set).
  std::vector<uint32_t> anyPorts;
  // Entries with source ports and any destination port, by source port.
  PortStab bySource;
  // Entries with destination ports, by destination port.
  PortStab byDestination;
};

size_t ShadowIndex::KeyHash::operator()(const Key& k) const {
  const auto& [v6, protocol, srcLen, src, dstLen, dst] = k;
  size_t h = std::hash<uint64_t>()((uint64_t(v6) << 40) | (uint64_t(protocol) << 16) |
                                   (uint64_t(srcLen + 1) << 8) | uint64_t(dstLen + 1));
  h ^= src.hash() + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  h ^= dst.hash() + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h;
}

ShadowIndex::ShadowIndex() = default;
ShadowIndex::~ShadowIndex() = default;

void ShadowIndex::add(const Acl::AclRuleConfig& rule, uint8_t flags, size_t id) {
  const int srcLen = lengthOf(rule.src);
  const int dstLen = lengthOf(rule.dst);
  const Key key{rule.ipv6, rule.protocol ? *rule.protocol : kAnyProtocol,
                srcLen,    network(rule.src.addr, srcLen),
                dstLen,    network(rule.dst.addr, dstLen)};
  auto& slot = buckets_[key];
  if (!slot) slot = std::make_unique<Bucket>();
  Bucket& b = *slot;
  if (!b.shapes
           .emplace(rule.srcPorts.op, rule.srcPorts.ports, rule.dstPorts.op, rule.dstPorts.ports,
                    flags)
           .second) {
    return;
  }
  srcLengths_[rule.ipv6].insert(srcLen);
  dstLengths_[rule.ipv6].insert(dstLen);
  const auto entry = static_cast<uint32_t>(b.entries.size());
  b.entries.push_back({&rule, flags, id});
  const bool anySource = rule.srcPorts.op == Acl::PortOp::any;
  if (rule.dstPorts.op != Acl::PortOp::any) {
    b.byDestination.add(rule.dstPorts.intervals(), entry);
  } else if (!anySource) {
    b.bySource.add(rule.srcPorts.intervals(), entry);
  } else {
    b.anyPorts.push_back(entry);
  }
}

std::optional<size_t> ShadowIndex::firstCover(const Acl::AclRuleConfig& rule, uint8_t flags) const {
  std::optional<size_t> first;
  const auto consider = [&](const Bucket& b, uint32_t entry) {
    const auto& e = b.entries[entry];
    if (first && *first <= e.id) return;
    if (ConfigLinter::covers(*e.rule, e.flags, rule, flags)) first = e.id;
  };
  const auto searchBucket = [&](const Bucket& b) {
    for (const uint32_t e : b.anyPorts) consider(b, e);
    const auto visit = [&](uint32_t e) { consider(b, e); };
    // An inner rule with any ports is covered only by rules with any ports.
    if (rule.srcPorts.op != Acl::PortOp::any) b.bySource.visit(probe(rule.srcPorts), visit);
    if (rule.dstPorts.op != Acl::PortOp::any) b.byDestination.visit(probe(rule.dstPorts), visit);
  };
  const int srcLen = lengthOf(rule.src);
  const int dstLen = lengthOf(rule.dst);
  const uint16_t own = rule.protocol ? *rule.protocol : kAnyProtocol;
  for (const uint16_t protocol : {own, kAnyProtocol}) {
    for (const int s : srcLengths_[rule.ipv6]) {
      if (s > srcLen) break;
      for (const int d : dstLengths_[rule.ipv6]) {
        if (d > dstLen) break;
        const auto it = buckets_.find(
            Key{rule.ipv6, protocol, s, network(rule.src.addr, s), d, network(rule.dst.addr, d)});
        if (it != buckets_.end()) searchBucket(*it->second);
      }
    }
    if (!rule.protocol) break;
  }
  return first;
}

}  // namespace Waymark
