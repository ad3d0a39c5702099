#include "nexthop/NexthopTableManager.h"

#include "framework/Errors.h"
#include "framework/Trace.h"

namespace Pbr {

bool testMode = false;

namespace {

using Velnet::IpGenAddr;

SystemCommandRunner systemCommandRunner;

// The family word of an `ip` command: "" for IPv4, "-6 " for IPv6.
const char* familyWord(const IpGenAddr& addr) { return addr.isV6() ? "-6 " : ""; }

// Mark candidates skip 0 and the reserved mark.
uint32_t nextFwmarkCandidate(uint32_t mark) {
  ++mark;
  if (mark == NexthopTableManager::kReservedFwmark || mark == 0) ++mark;
  return mark;
}

// Table candidates skip 0 and the kernel's "default", "main" and "local".
uint16_t nextRouteTableCandidate(uint16_t table) {
  ++table;
  if (table == 0) return 1;
  if (table >= 253 && table <= 255) return 256;
  return table;
}

uint16_t nextIpRuleIndexCandidate(uint16_t index) {
  return index >= NexthopTableManager::kMaxIpRuleIndex ? 1 : index + 1;
}

}  // namespace

NexthopTableManager::NexthopTableManager() : commandRunner_(&systemCommandRunner) {}

void NexthopTableManager::commandRunnerIs(CommandRunner* runner) {
  commandRunner_ = runner != nullptr ? runner : &systemCommandRunner;
}

uint32_t NexthopTableManager::nexthopInc(const IpGenAddr& addr, uint32_t delta) {
  const uint32_t count = nexthop(addr) + delta;
  nexthop_.valueIs(addr, count);
  return count;
}

void NexthopTableManager::nexthopIs(const IpGenAddr& addr, uint32_t count) {
  nexthop_.valueIs(addr, count);
}

void NexthopTableManager::nexthopDel(const IpGenAddr& addr) { nexthop_.del(addr); }

void NexthopTableManager::programmedIs(const IpGenAddr& addr, bool programmed) {
  if (!programmed_.valueIs(addr, programmed)) return;
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onProgrammed(addr); });
}

void NexthopTableManager::programmedDel(const IpGenAddr& addr) {
  if (!programmed_.del(addr)) return;
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onProgrammed(addr); });
}

const Vix::Ptr<Routing::Trie>& NexthopTableManager::trieIs() {
  if (!trie_) trie_ = Vix::make<Routing::Trie>("PBRL3IntfTrie");
  return trie_;
}

const Vix::Ptr<Routing6::Trie>& NexthopTableManager::trie6Is() {
  if (!trie6_) trie6_ = Vix::make<Routing6::Trie>("PBRL3IntfTrie6");
  return trie6_;
}

Vix::Ptr<SubnetAddrCollection> NexthopTableManager::nexthopsForSubnetIs(const Velnet::Prefix& p) {
  if (auto existing = nexthopsForSubnet_.member(p)) return existing;
  auto created = Vix::make<SubnetAddrCollection>(p);
  nexthopsForSubnet_.newMember(created);
  return created;
}

Vix::Ptr<Ip6SubnetAddrCollection> NexthopTableManager::nexthopsForSubnet6Is(
    const Velnet::Ip6Prefix& p) {
  if (auto existing = nexthopsForSubnet6_.member(p)) return existing;
  auto created = Vix::make<Ip6SubnetAddrCollection>(p);
  nexthopsForSubnet6_.newMember(created);
  return created;
}

bool NexthopTableManager::withoutSubnet(const IpGenAddr& addr) const {
  return addr.isV6() ? nexthop6WithoutSubnet(addr.v6()) : nexthopWithoutSubnet(addr.v4());
}

// Each search starts just after the cursor and gives up when it comes round
// to the cursor again. It also gives up when it comes round to its own first
// candidate, which only matters for a cursor the search can never meet (one
// set from outside to a value that is never handed out).
std::optional<uint32_t> NexthopTableManager::freeFwmark() const {
  const uint32_t first = nextFwmarkCandidate(lastFwmark_);
  uint32_t candidate = first;
  while (!addrForFwmark(candidate).isUnset()) {
    candidate = nextFwmarkCandidate(candidate);
    if (candidate == lastFwmark_ || candidate == first) return std::nullopt;
  }
  return candidate;
}

std::optional<uint16_t> NexthopTableManager::freeRouteTable() const {
  const uint16_t first = nextRouteTableCandidate(lastRouteTable_);
  uint16_t candidate = first;
  while (!addrForRouteTable(candidate).isUnset()) {
    candidate = nextRouteTableCandidate(candidate);
    if (candidate == lastRouteTable_ || candidate == first) return std::nullopt;
  }
  return candidate;
}

std::optional<uint16_t> NexthopTableManager::freeIpRuleIndex() const {
  const uint16_t first = nextIpRuleIndexCandidate(lastIpRuleIndex_);
  uint16_t candidate = first;
  while (!addrForIpRuleIndex(candidate).isUnset()) {
    candidate = nextIpRuleIndexCandidate(candidate);
    if (candidate == lastIpRuleIndex_ || candidate == first) return std::nullopt;
  }
  return candidate;
}

void NexthopTableManager::createNexthop(const IpGenAddr& addr) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << "(" << addr << ")");
  if (fwmark(addr) != 0) return;
  const auto mark = freeFwmark();
  const auto table = mark ? freeRouteTable() : std::nullopt;
  const auto index = table ? freeIpRuleIndex() : std::nullopt;
  if (!index) {
    nexthopWithoutResourcesIs(addr, true);
    return;
  }
  lastIpRuleIndexIs(*index);
  ipRuleIndexIs(addr, *index);
  addrForIpRuleIndexIs(*index, addr);
  lastFwmarkIs(*mark);
  fwmarkIs(addr, *mark);
  addrForFwmarkIs(*mark, addr);
  lastRouteTableIs(*table);
  routeTableIs(addr, *table);
  addrForRouteTableIs(*table, addr);
}

bool NexthopTableManager::enterSubnet(const IpGenAddr& addr) {
  if (addr.isV6()) {
    const auto subnet = trie6Is()->longestMatch(Velnet::Ip6Prefix(addr.v6(), 128));
    if (!subnet) {
      nexthop6WithoutSubnetIs(addr.v6(), true);
      return false;
    }
    nexthopsForSubnet6Is(*subnet)->addrIs(addr.v6(), true);
    return true;
  }
  const auto subnet = trieIs()->longestMatch(Velnet::Prefix(addr.v4(), 32));
  if (!subnet) {
    nexthopWithoutSubnetIs(addr.v4(), true);
    return false;
  }
  nexthopsForSubnetIs(*subnet)->addrIs(addr.v4(), true);
  return true;
}

void NexthopTableManager::leaveSubnet(const IpGenAddr& addr) {
  if (addr.isV6()) {
    const auto subnet = trie6Is()->longestMatch(Velnet::Ip6Prefix(addr.v6(), 128));
    if (!subnet) return;
    if (const auto collection = nexthopsForSubnet6(*subnet)) collection->addrDel(addr.v6());
    return;
  }
  const auto subnet = trieIs()->longestMatch(Velnet::Prefix(addr.v4(), 32));
  if (!subnet) return;
  if (const auto collection = nexthopsForSubnet(*subnet)) collection->addrDel(addr.v4());
}

void NexthopTableManager::withoutSubnetIs(const IpGenAddr& addr) {
  addr.isV6() ? nexthop6WithoutSubnetIs(addr.v6(), true) : nexthopWithoutSubnetIs(addr.v4(), true);
}

void NexthopTableManager::withoutSubnetDel(const IpGenAddr& addr) {
  addr.isV6() ? nexthop6WithoutSubnetDel(addr.v6()) : nexthopWithoutSubnetDel(addr.v4());
}

void NexthopTableManager::createRoutingTable(const IpGenAddr& addr, bool forceProgram) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << "(" << addr << ")");
  VIX_ASSERT(forceProgram || !programmed(addr), "forceProgram || !programmed( addr )");
  if (fwmark(addr) == 0) createNexthop(addr);
  const uint32_t mark = fwmark(addr);
  if (mark == 0) return;
  // Whatever an earlier run left in the kernel for these numbers goes first.
  deleteRoutingTable(addr, true);
  if (forceProgram) programmedDel(addr);
  if (!enterSubnet(addr)) return;

  const std::string family = familyWord(addr);
  const std::string table = std::to_string(routeTable(addr));
  // The route goes in before the rule, so that marked packets never meet a
  // rule pointing at an empty table.
  bool ok = testMode || runCommand("ip " + family + "route add default via " + addr.stringValue() +
                                       " table " + table,
                                   false);
  ok = ok && runCommand("ip " + family + "rule add priority " + std::to_string(ipRuleIndex(addr)) +
                            " fwmark " + std::to_string(mark) + " lookup " + table,
                        false);
  if (ok) {
    nexthopWithoutResourcesDel(addr);
    withoutSubnetDel(addr);
    programmedIs(addr, true);
    return;
  }
  // A refusal is treated like a nexthop without a usable subnet: it keeps its
  // resources and is retried when resources are freed or its subnet returns.
  programmedDel(addr);
  nexthopWithoutResourcesIs(addr, true);
  leaveSubnet(addr);
  withoutSubnetIs(addr);
}

void NexthopTableManager::deleteRoutingTable(const IpGenAddr& addr, bool allowFailure) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << "(" << addr << ")");
  const std::string family = familyWord(addr);
  runCommand("ip " + family + "rule del priority " + std::to_string(ipRuleIndex(addr)),
             allowFailure);
  if (!testMode) {
    runCommand("ip " + family + "route del table " + std::to_string(routeTable(addr)),
               allowFailure);
  }
  leaveSubnet(addr);
  // A nexthop that is still referenced keeps waiting for its subnet.
  if (nexthop(addr) == 0) withoutSubnetDel(addr);
  nexthopWithoutResourcesDel(addr);
}

bool NexthopTableManager::runCommand(const std::string& command, bool allowFailure) {
  VIX_TRACE(4, "Running command: " << command);
  const int status = commandRunner_->run(command);
  const int exitCode = (status >> 8) & 0xff;
  if (allowFailure) return exitCode == 0;
  if (status == -1 || (status & 0x7f) != 0) {
    // A command ended by a signal is reported, yet counts by its exit-code
    // byte (0): that is how the kernel programming has always judged it.
    VIX_TRACE(4, "\tFailed to execute command!");
    return exitCode == 0;
  }
  if (exitCode == 0) return true;
  VIX_TRACE(4, "\tCommand failed with return value " << exitCode << "!");
  return false;
}

}  // namespace Pbr
