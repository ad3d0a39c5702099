#include "nexthop/NexthopTableManager.h"

#include <cmath>

#include "framework/ActivityManager.h"
#include "framework/Errors.h"
#include "framework/Trace.h"

namespace Pbr {

bool testMode = false;

namespace {

using Velnet::IpGenAddr;

SystemCommandRunner systemCommandRunner;

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

// Wakes the programming loop.
class NexthopTableManager::DeferredRouteTableClock : public Vix::ClockNotifiee {
 public:
  explicit DeferredRouteTableClock(NexthopTableManager* manager) : manager_(manager) {}
  void onTime() override { manager_->handleClock(); }

 private:
  NexthopTableManager* manager_;
};

NexthopTableManager::NexthopTableManager(const Vix::Ptr<const Ip::Status>& ipStatus,
                                         const Vix::Ptr<const Ip6::Status>& ip6Status)
    : commandRunner_(&systemCommandRunner) {
  handleInitialized();
  ipStatus_ = Vix::make<VixIpStatus>(this);
  ipStatus_->notifierIs(ipStatus.get());
  ip6Status_ = Vix::make<VixIp6Status>(this);
  ip6Status_->notifierIs(ip6Status.get());
}

NexthopTableManager::~NexthopTableManager() {
  tearingDown_ = true;
  ipStatus_ = nullptr;
  ip6Status_ = nullptr;
  ipIntfStatus_.deleteAll();
  ip6IntfStatus_.deleteAll();
}

void NexthopTableManager::commandRunnerIs(CommandRunner* runner) {
  commandRunner_ = runner != nullptr ? runner : &systemCommandRunner;
}

uint32_t NexthopTableManager::nexthopInc(const IpGenAddr& addr, uint32_t delta) {
  const uint32_t count = nexthop(addr) + delta;
  nexthop_.valueIs(addr, count);
  if (delta != 0) handleNexthop(addr);
  return count;
}

void NexthopTableManager::nexthopIs(const IpGenAddr& addr, uint32_t count) {
  if (nexthop_.valueIs(addr, count)) handleNexthop(addr);
}

void NexthopTableManager::nexthopDel(const IpGenAddr& addr) {
  if (nexthop_.del(addr)) handleNexthop(addr);
}

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

// An IPv6 match of ::/0 is the null prefix, no connected subnet: an address
// with a /0 mask must not make every IPv6 nexthop connected. IPv4's
// 0.0.0.0/0 is a match like any other.
std::optional<Velnet::Ip6Prefix> NexthopTableManager::subnet6(const Velnet::Ip6Addr& a) {
  const auto subnet = trie6Is()->longestMatch(Velnet::Ip6Prefix(a, 128));
  if (!subnet || subnet->maskLen() == 0) return std::nullopt;
  return subnet;
}

bool NexthopTableManager::enterSubnet(const IpGenAddr& addr) {
  if (addr.isV6()) {
    const auto subnet = subnet6(addr.v6());
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
    const auto subnet = subnet6(addr.v6());
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

  const uint32_t table = routeTable(addr);
  // The route goes in before the rule, so that marked packets never meet a
  // rule pointing at an empty table.
  bool ok = testMode || runCommand(RoutingRequest::addRoute(addr, table), false);
  ok = ok && runCommand(RoutingRequest::addRule(addr, ipRuleIndex(addr), mark, table), false);
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
  runCommand(RoutingRequest::deleteRule(addr, ipRuleIndex(addr), fwmark(addr), routeTable(addr)),
             allowFailure);
  if (!testMode) runCommand(RoutingRequest::deleteRoute(addr, routeTable(addr)), allowFailure);
  leaveSubnet(addr);
  // A nexthop that is still referenced keeps waiting for its subnet.
  if (nexthop(addr) == 0) withoutSubnetDel(addr);
  nexthopWithoutResourcesDel(addr);
}

bool NexthopTableManager::runCommand(const std::string& command, bool allowFailure) {
  return runCommand(RoutingRequest::ofText(command), allowFailure);
}

bool NexthopTableManager::runCommand(const RoutingRequest& request, bool allowFailure) {
  VIX_TRACE(4, "Running command: " << request.text);
  const int status = commandRunner_->run(request).waitStatus();
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

// -- Deferred programming ----------------------------------------------------

const Vix::Clock* NexthopTableManager::deferredRouteTableClock() const {
  return deferredRouteTableClock_ ? deferredRouteTableClock_->notifier() : nullptr;
}

void NexthopTableManager::deferredRouteTableClockIs(const Vix::Ptr<Vix::Clock>& clock) {
  if (!deferredRouteTableClock_) {
    deferredRouteTableClock_ = Vix::make<DeferredRouteTableClock>(this);
  }
  deferredRouteTableClock_->notifierIs(clock.get());
}

double NexthopTableManager::deferredRouteTableClockTimeMin() const {
  return deferredRouteTableClock_ ? deferredRouteTableClock_->timeMin() : Vix::kNever;
}

void NexthopTableManager::handleInitialized() {
  VIX_TRACE(8, __PRETTY_FUNCTION__);
  deferredRouteTableClockIs(Vix::activityManager().clock());
  initializedIs(true);
}

void NexthopTableManager::nexthopProgrammingTimeLimitIs(double limit) {
  if (limit == nexthopProgrammingTimeLimit_) return;
  nexthopProgrammingTimeLimit_ = limit;
  handleNexthopProgrammingTimeLimit();
}

void NexthopTableManager::handleNexthop(const IpGenAddr& addr) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << "(" << addr << ")");
  if (nexthop(addr) != 0) {
    if (programmed(addr)) {
      // Nothing left to do; a queued removal is cancelled.
      pendingNexthopDel(addr);
      return;
    }
    pendingNexthopIsAndArm(addr, pendingAdd);
    return;
  }
  // A nexthop that never got resources has nothing to remove; an add still
  // queued for it is carried out all the same.
  if (fwmark(addr) == 0) return;
  pendingNexthopIsAndArm(addr, pendingDelete);
}

void NexthopTableManager::pendingNexthopIsAndArm(const IpGenAddr& addr,
                                                 PendingNexthopOperation op) {
  pendingNexthopIs(addr, op);
  handleNexthopProgrammingTimeLimit();
}

void NexthopTableManager::handleNexthopProgrammingTimeLimit() {
  if (codefScheduled_ || !deferredRouteTableClock_) return;
  if (pendingNexthop_.empty() || nexthopProgrammingTimeLimit_ == 0.0) {
    deferredRouteTableClock_->timeMinIs(Vix::kNever);
    return;
  }
  deferredRouteTableClock_->timeMinIs(Vix::now());
  codefScheduledIs(true);
}

void NexthopTableManager::handleClock() {
  VIX_TRACE(8, __PRETTY_FUNCTION__);
  const double start = Vix::now();
  const double deadline = start + nexthopProgrammingTimeLimit_;
  double current = start;
  auto pending = pendingNexthop_.startAtHash(pendingNexthopBookmark_);
  auto waiting = nexthopWithoutResources_.begin();
  VIX_TRACE(9, "Codef starting at " << start);
  // The deadline is checked between entries, never inside one, so a run with
  // a positive limit always examines at least one entry.
  while (!pendingNexthop_.empty() && deadline > current) {
    if (pending.atEnd()) pending = pendingNexthop_.begin();
    const IpGenAddr addr = pending->key();
    programOrRemove(addr, pending->value(), waiting);
    ++pending;
    pendingNexthopDel(addr);
    current = Vix::now();
  }
  const double elapsed = current - start;
  lastProgrammingTimeIs(elapsed);
  totalProgrammingTimeInc(elapsed);
  if (elapsed > maxProgrammingTime_) maxProgrammingTimeIs(elapsed);
  codefScheduledIs(false);
  if (!pendingNexthop_.empty()) {
    handleNexthopProgrammingTimeLimit();
    if (pending.atEnd()) pending = pendingNexthop_.begin();
    pendingNexthopBookmarkIs(pending->key());
  }
  VIX_TRACE(9, "Codef done at " << current << ", ran for " << elapsed);
}

void NexthopTableManager::programOrRemove(const IpGenAddr& addr, PendingNexthopOperation op,
                                          Vix::ValueMap<IpGenAddr, bool>::Iterator& waiting) {
  const bool shouldProgram = op == pendingAdd;
  const bool isProgrammed = programmed(addr);
  // Programmed, but its subnet went away meanwhile: its kernel state is stale.
  const bool force = shouldProgram && isProgrammed && withoutSubnet(addr);
  VIX_TRACE(
      9, "Examining " << addr << " shouldProgram=" << shouldProgram << " force program " << force);
  if (shouldProgram && (!isProgrammed || force)) {
    VIX_TRACE(9, "Codef adding nexthop for " << addr);
    createRoutingTable(addr, force);
    nexthopsAddedInc(1);
    return;
  }
  if (!shouldProgram && isProgrammed) {
    VIX_TRACE(9, "Codef deleting nexthop for " << addr);
    deleteRoutingTable(addr, false);
    releaseResources(addr);
    programmedDel(addr);
    nexthopsDeletedInc(1);
    handOnResources(waiting);
  }
}

void NexthopTableManager::releaseResources(const IpGenAddr& addr) {
  if (const auto table = routeTableDel(addr)) addrForRouteTableDel(static_cast<uint16_t>(*table));
  if (const auto index = ipRuleIndexDel(addr)) addrForIpRuleIndexDel(static_cast<uint16_t>(*index));
  if (const auto mark = fwmarkDel(addr)) addrForFwmarkDel(*mark);
}

// Freed resources go to one waiting nexthop. The walk stays on the nexthop it
// queued, so a later deletion in the same run considers it first again.
void NexthopTableManager::handOnResources(Vix::ValueMap<IpGenAddr, bool>::Iterator& waiting) {
  while (!waiting.atEnd()) {
    const IpGenAddr candidate = waiting->key();
    if (programmed(candidate)) {
      ++waiting;
      nexthopWithoutResourcesDel(candidate);
      continue;
    }
    VIX_TRACE(9, "Codef enqueueing creation of " << candidate);
    pendingNexthopIs(candidate, pendingAdd);
    return;
  }
}

// -- Connected-subnet tracking -------------------------------------------------

void NexthopTableManager::handleIpIntfAddress(const Velnet::IntfId& intfId,
                                              const Velnet::IpAddrWithMask& a, bool cleanup) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << intfId << ", " << a << " cleanup=" << cleanup);
  const Ip::Status* status = ipStatus_ ? ipStatus_->notifier() : nullptr;
  const auto intf = status != nullptr ? status->ipIntfStatus(intfId) : nullptr;
  if (intf && !cleanup && !a.isZero() &&
      (a == intf->activeAddrWithMask() || intf->activeSecondaryWithMask(a))) {
    validSubnetIs(a, intfId);
    return;
  }
  // Only the interface that holds an address can withdraw it.
  if (validSubnet(a) == intfId) validSubnetDel(a);
}

void NexthopTableManager::handleIp6IntfAddress(const Velnet::IntfId& intfId,
                                               const Velnet::Ip6AddrWithMask& a, bool cleanup) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << intfId << ", " << a << " cleanup=" << cleanup);
  const Ip6::Status* status = ip6Status_ ? ip6Status_->notifier() : nullptr;
  const auto intf = status != nullptr ? status->intf(intfId) : nullptr;
  if (intf && !cleanup && !a.isZero() && !intf->addr(a).empty()) {
    validSubnet6Is(a, intfId);
    return;
  }
  if (validSubnet6(a) == intfId) validSubnet6Del(a);
}

void NexthopTableManager::validSubnetIs(const Velnet::IpAddrWithMask& a,
                                        const Velnet::IntfId& intfId) {
  // The last interface to claim an address wins.
  if (!validSubnet_.valueIs(a, intfId)) return;
  handleValidSubnet(a);
}

Velnet::IntfId NexthopTableManager::validSubnetDel(const Velnet::IpAddrWithMask& a) {
  const auto removed = validSubnet_.del(a);
  if (!removed) return Velnet::IntfId();
  handleValidSubnet(a);
  return *removed;
}

void NexthopTableManager::validSubnet6Is(const Velnet::Ip6AddrWithMask& a,
                                         const Velnet::IntfId& intfId) {
  if (!validSubnet6_.valueIs(a, intfId)) return;
  handleValidSubnet6(a);
}

Velnet::IntfId NexthopTableManager::validSubnet6Del(const Velnet::Ip6AddrWithMask& a) {
  const auto removed = validSubnet6_.del(a);
  if (!removed) return Velnet::IntfId();
  handleValidSubnet6(a);
  return *removed;
}

void NexthopTableManager::handleValidSubnet(const Velnet::IpAddrWithMask& a) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << a);
  const Velnet::Prefix subnet(a);
  if (!validSubnet(a).empty()) {
    VIX_TRACE(6, "Adding valid subnet " << a);
    trieIs()->routeIs(subnet, true);
    // Waiting nexthops stay flagged until the loop has programmed them.
    nexthopWithoutSubnet_.forEach([&](const Velnet::IpAddr& nh, bool) {
      if (subnet.contains(nh)) pendingNexthopIsAndArm(nh, pendingAdd);
    });
    return;
  }
  VIX_TRACE(6, "Removing invalid subnet " << a);
  trieIs()->routeDel(subnet);
  const auto removed = nexthopsForSubnetDel(subnet);
  if (!removed) return;
  removed->addrs().forEach([&](const Velnet::IpAddr& nh, bool) {
    pendingNexthopIsAndArm(nh, pendingDelete);
    nexthopWithoutSubnetIs(nh, true);
  });
}

void NexthopTableManager::handleValidSubnet6(const Velnet::Ip6AddrWithMask& a) {
  VIX_TRACE(8, __PRETTY_FUNCTION__ << ": " << a);
  const Velnet::Ip6Prefix subnet(a);
  if (!validSubnet6(a).empty()) {
    VIX_TRACE(6, "Adding valid subnet " << a);
    trie6Is()->routeIs(subnet, true);
    nexthop6WithoutSubnet_.forEach([&](const Velnet::Ip6Addr& nh, bool) {
      if (subnet.contains(nh)) pendingNexthopIsAndArm(nh, pendingAdd);
    });
    return;
  }
  VIX_TRACE(6, "Removing invalid subnet " << a);
  trie6Is()->routeDel(subnet);
  const auto removed = nexthopsForSubnet6Del(subnet);
  if (!removed) return;
  removed->addrs().forEach([&](const Velnet::Ip6Addr& nh, bool) {
    pendingNexthopIsAndArm(nh, pendingDelete);
    nexthop6WithoutSubnetIs(nh, true);
  });
}

void NexthopTableManager::ipIntfStatusIs(const Vix::Ptr<const Ip::IpIntfStatus>& status) {
  const Velnet::IntfId& intfId = status->intfId();
  if (const auto existing = ipIntfStatus_.member(intfId)) {
    if (existing->notifier() == status.get()) return;
    ipIntfStatusDel(intfId);
  }
  auto reactor = Vix::make<VixIpIntfStatus>(intfId, this);
  ipIntfStatus_.newMember(reactor);
  reactor->notifierIs(status.get());
  reactor->vix_handleIpIntfStatus();
}

void NexthopTableManager::ipIntfStatusDel(const Velnet::IntfId& intfId) {
  if (const auto reactor = ipIntfStatus_.memberDel(intfId)) reactor->vixDoZombieReactors(true);
}

void NexthopTableManager::ip6IntfStatusIs(const Vix::Ptr<const Ip6::IntfStatus>& status) {
  const Velnet::IntfId& intfId = status->intfId();
  if (const auto existing = ip6IntfStatus_.member(intfId)) {
    if (existing->notifier() == status.get()) return;
    ip6IntfStatusDel(intfId);
  }
  auto reactor = Vix::make<VixIp6IntfStatus>(intfId, this);
  ip6IntfStatus_.newMember(reactor);
  reactor->notifierIs(status.get());
  reactor->vix_handleIp6IntfStatus();
}

void NexthopTableManager::ip6IntfStatusDel(const Velnet::IntfId& intfId) {
  if (const auto reactor = ip6IntfStatus_.memberDel(intfId)) reactor->vixDoZombieReactors(true);
}

void NexthopTableManager::vix_handleIpIntfStatus(VixIpIntfStatus* reactor) {
  if (!tearingDown_) reactor->handleAll(true);
}

void NexthopTableManager::vix_handleIp6IntfStatus(VixIp6IntfStatus* reactor) {
  if (!tearingDown_) reactor->handleAll(true);
}

Vix::Ptr<NexthopTableManager> nexthopTableManagerFactory(
    const Vix::Ptr<const Ip::Status>& ipStatus, const Vix::Ptr<const Ip6::Status>& ip6Status) {
  return Vix::make<NexthopTableManager>(ipStatus, ip6Status);
}

}  // namespace Pbr
