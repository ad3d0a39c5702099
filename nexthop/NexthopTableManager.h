// NexthopTableManager: gives every nexthop in use a packet mark, a routing
// table and an `ip rule` priority, finds the connected subnet it lies in, and
// puts its route and rule into the kernel with `ip` commands.
//
// Policy classes count their nexthops in and out (nexthopInc); a nexthop is
// programmed only while it lies in a connected subnet, and the kernel state
// for mark M, table T, priority P is one "default via NH" route in T and one
// rule "priority P fwmark M lookup T". Kernel and shell failures are never
// raised: they are traced and recorded (programmed, nexthopWithoutResources,
// nexthopWithoutSubnet). Marks, tables and priorities are handed out next-fit:
// each search starts after the value handed out last, so a freed value is
// reused only once the cursor has gone round.
//
// Kernel work is never done in the reaction that notices a change: changes
// queue an operation per nexthop in pendingNexthop, and a loop on the
// framework clock (the codef) carries them out in slices of at most
// nexthopProgrammingTimeLimit seconds, resuming at a bookmark so that a long
// queue is walked fairly. A deletion hands its freed resources to one nexthop
// waiting for them. The connected subnets are learnt from the platform's
// interface status (Ip::Status, Ip6::Status) through reactors; when a subnet
// comes, the nexthops waiting in it are queued for programming, and when it
// goes, the nexthops programmed in it are queued for removal and wait again.
//
// Watched by each class's nexthop selector, which hears when a nexthop's
// programmed state changes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/Clock.h"
#include "framework/Entity.h"
#include "framework/HashMap.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "framework/ValueMap.h"
#include "kernel/CommandRunner.h"
#include "net/IntfId.h"
#include "net/Ip6Addr.h"
#include "net/Ip6AddrWithMask.h"
#include "net/Ip6Prefix.h"
#include "net/IpAddr.h"
#include "net/IpAddrWithMask.h"
#include "net/IpGenAddr.h"
#include "net/Prefix.h"
#include "net/Routing6Trie.h"
#include "net/RoutingTrie.h"
#include "nexthop/PendingNexthopOperation.h"
#include "nexthop/SubnetAddrCollection.h"
#include "nexthop/VixIp6IntfStatus.h"
#include "nexthop/VixIp6Status.h"
#include "nexthop/VixIpIntfStatus.h"
#include "nexthop/VixIpStatus.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"

namespace Pbr {

// True while the environment variable "PBR_TEST" was present at hardware
// initialisation: routes are then neither added nor deleted, only rules.
extern bool testMode;

class NexthopTableManager : public Vix::Entity {
 public:
  using IpGenAddr = Velnet::IpGenAddr;

  // Mark that is never handed out.
  static constexpr uint32_t kReservedFwmark = 13429;
  // Highest rule priority handed out; the kernel's main and default rules
  // follow at 32766 and 32767.
  static constexpr uint16_t kMaxIpRuleIndex = 32765;

  class NotifieeConst : public Vix::Notifiee<NexthopTableManager> {
   public:
    // programmed(addr) changed.
    virtual void onProgrammed(const Velnet::IpGenAddr& /*addr*/) {}
  };

  static constexpr double nexthopProgrammingTimeLimitDefault = 0.5;

  // Watches `ipStatus` and `ip6Status` (either may be null) and takes the
  // activity manager's clock for its programming loop.
  NexthopTableManager(const Vix::Ptr<const Ip::Status>& ipStatus,
                      const Vix::Ptr<const Ip6::Status>& ip6Status);
  ~NexthopTableManager() override;

  // Reference counts: how many class selections use a nexthop. The mutators
  // react (handleNexthop) only when they change something.
  uint32_t nexthop(const IpGenAddr& addr) const { return nexthop_.value(addr, 0); }
  // Adds `delta` (a decrement is passed as its two's complement) and returns
  // the new count; creates the entry at 0 first when missing.
  uint32_t nexthopInc(const IpGenAddr& addr, uint32_t delta);
  void nexthopIs(const IpGenAddr& addr, uint32_t count);
  void nexthopDel(const IpGenAddr& addr);
  const Vix::ValueMap<IpGenAddr, uint32_t>& nexthops() const { return nexthop_; }

  // Whether the nexthop's rule and route are in the kernel.
  bool programmed(const IpGenAddr& addr) const { return programmed_.value(addr, false); }
  void programmedIs(const IpGenAddr& addr, bool programmed);
  void programmedDel(const IpGenAddr& addr);
  const Vix::ValueMap<IpGenAddr, bool>& programmedSet() const { return programmed_; }

  // Resources of a nexthop; 0 when it has none.
  uint32_t fwmark(const IpGenAddr& addr) const { return fwmark_.value(addr, 0); }
  void fwmarkIs(const IpGenAddr& addr, uint32_t mark) { fwmark_.valueIs(addr, mark); }
  std::optional<uint32_t> fwmarkDel(const IpGenAddr& addr) { return fwmark_.del(addr); }
  uint32_t routeTable(const IpGenAddr& addr) const { return routeTable_.value(addr, 0); }
  void routeTableIs(const IpGenAddr& addr, uint32_t table) { routeTable_.valueIs(addr, table); }
  std::optional<uint32_t> routeTableDel(const IpGenAddr& addr) { return routeTable_.del(addr); }
  uint32_t ipRuleIndex(const IpGenAddr& addr) const { return ipRuleIndex_.value(addr, 0); }
  void ipRuleIndexIs(const IpGenAddr& addr, uint32_t index) { ipRuleIndex_.valueIs(addr, index); }
  std::optional<uint32_t> ipRuleIndexDel(const IpGenAddr& addr) { return ipRuleIndex_.del(addr); }

  // Owners of resources (the unset address when free).
  IpGenAddr addrForFwmark(uint32_t mark) const { return addrForFwmark_.value(mark); }
  void addrForFwmarkIs(uint32_t mark, const IpGenAddr& a) { addrForFwmark_.valueIs(mark, a); }
  void addrForFwmarkDel(uint32_t mark) { addrForFwmark_.del(mark); }
  IpGenAddr addrForRouteTable(uint16_t table) const { return addrForRouteTable_.value(table); }
  void addrForRouteTableIs(uint16_t table, const IpGenAddr& a) {
    addrForRouteTable_.valueIs(table, a);
  }
  void addrForRouteTableDel(uint16_t table) { addrForRouteTable_.del(table); }
  IpGenAddr addrForIpRuleIndex(uint16_t index) const { return addrForIpRuleIndex_.value(index); }
  void addrForIpRuleIndexIs(uint16_t index, const IpGenAddr& a) {
    addrForIpRuleIndex_.valueIs(index, a);
  }
  void addrForIpRuleIndexDel(uint16_t index) { addrForIpRuleIndex_.del(index); }

  // Allocation cursors: the value handed out last.
  uint32_t lastFwmark() const { return lastFwmark_; }
  void lastFwmarkIs(uint32_t mark) { lastFwmark_ = mark; }
  uint16_t lastRouteTable() const { return lastRouteTable_; }
  void lastRouteTableIs(uint16_t table) { lastRouteTable_ = table; }
  uint16_t lastIpRuleIndex() const { return lastIpRuleIndex_; }
  void lastIpRuleIndexIs(uint16_t index) { lastIpRuleIndex_ = index; }

  // Nexthops whose allocation or kernel programming failed; they wait for
  // freed resources.
  bool nexthopWithoutResources(const IpGenAddr& addr) const {
    return nexthopWithoutResources_.value(addr, false);
  }
  void nexthopWithoutResourcesIs(const IpGenAddr& addr, bool v) {
    nexthopWithoutResources_.valueIs(addr, v);
  }
  void nexthopWithoutResourcesDel(const IpGenAddr& addr) { nexthopWithoutResources_.del(addr); }
  const Vix::ValueMap<IpGenAddr, bool>& nexthopsWithoutResources() const {
    return nexthopWithoutResources_;
  }

  // Connected subnets, per family.
  const Vix::Ptr<Routing::Trie>& trie() const { return trie_; }
  // The trie, created on first use.
  const Vix::Ptr<Routing::Trie>& trieIs();
  const Vix::Ptr<Routing6::Trie>& trie6() const { return trie6_; }
  const Vix::Ptr<Routing6::Trie>& trie6Is();

  // The nexthops programmed inside each connected subnet.
  Vix::Ptr<SubnetAddrCollection> nexthopsForSubnet(const Velnet::Prefix& p) const {
    return nexthopsForSubnet_.member(p);
  }
  // The subnet's collection, created when missing.
  Vix::Ptr<SubnetAddrCollection> nexthopsForSubnetIs(const Velnet::Prefix& p);
  Vix::Ptr<SubnetAddrCollection> nexthopsForSubnetDel(const Velnet::Prefix& p) {
    return nexthopsForSubnet_.memberDel(p);
  }
  void nexthopsForSubnetDelAll() { nexthopsForSubnet_.deleteAll(); }
  Vix::Ptr<Ip6SubnetAddrCollection> nexthopsForSubnet6(const Velnet::Ip6Prefix& p) const {
    return nexthopsForSubnet6_.member(p);
  }
  Vix::Ptr<Ip6SubnetAddrCollection> nexthopsForSubnet6Is(const Velnet::Ip6Prefix& p);
  Vix::Ptr<Ip6SubnetAddrCollection> nexthopsForSubnet6Del(const Velnet::Ip6Prefix& p) {
    return nexthopsForSubnet6_.memberDel(p);
  }
  void nexthopsForSubnet6DelAll() { nexthopsForSubnet6_.deleteAll(); }

  // Nexthops requested but lying in no connected subnet.
  bool nexthopWithoutSubnet(const Velnet::IpAddr& a) const {
    return nexthopWithoutSubnet_.value(a, false);
  }
  void nexthopWithoutSubnetIs(const Velnet::IpAddr& a, bool v) {
    nexthopWithoutSubnet_.valueIs(a, v);
  }
  void nexthopWithoutSubnetDel(const Velnet::IpAddr& a) { nexthopWithoutSubnet_.del(a); }
  void nexthopWithoutSubnetDelAll() { nexthopWithoutSubnet_.delAll(); }
  const Vix::ValueMap<Velnet::IpAddr, bool>& nexthopsWithoutSubnet() const {
    return nexthopWithoutSubnet_;
  }
  bool nexthop6WithoutSubnet(const Velnet::Ip6Addr& a) const {
    return nexthop6WithoutSubnet_.value(a, false);
  }
  void nexthop6WithoutSubnetIs(const Velnet::Ip6Addr& a, bool v) {
    nexthop6WithoutSubnet_.valueIs(a, v);
  }
  void nexthop6WithoutSubnetDel(const Velnet::Ip6Addr& a) { nexthop6WithoutSubnet_.del(a); }
  void nexthop6WithoutSubnetDelAll() { nexthop6WithoutSubnet_.delAll(); }
  const Vix::ValueMap<Velnet::Ip6Addr, bool>& nexthops6WithoutSubnet() const {
    return nexthop6WithoutSubnet_;
  }
  // The family's without-subnet flag of a nexthop.
  bool withoutSubnet(const IpGenAddr& addr) const;

  // Allocates mark, table and priority for `addr` unless it has them; on
  // exhaustion of any space nothing is allocated and `addr` waits in
  // nexthopWithoutResources.
  void createNexthop(const IpGenAddr& addr);
  // Programs the nexthop's route and rule, allocating resources first when it
  // has none. REQUIRES: forceProgram || !programmed(addr).
  void createRoutingTable(const IpGenAddr& addr, bool forceProgram);
  // Removes the nexthop's rule and route from the kernel and from its
  // subnet's collection; resources and `programmed` stay.
  void deleteRoutingTable(const IpGenAddr& addr, bool allowFailure);
  // Runs one command line; true when it succeeded. With `allowFailure` only
  // the exit code counts and nothing is traced for a failure.
  bool runCommand(const std::string& command, bool allowFailure);
  // The same for a command the manager composed, which the runner receives
  // as data beside its text.
  bool runCommand(const RoutingRequest& request, bool allowFailure);

  CommandRunner* commandRunner() const { return commandRunner_; }
  // REQUIRES: `runner` outlives its installation; null restores system().
  void commandRunnerIs(CommandRunner* runner);

  // -- Deferred programming --------------------------------------------------

  // The work queue: at most one operation per nexthop, the newer wins.
  PendingNexthopOperation pendingNexthop(const IpGenAddr& addr) const {
    return pendingNexthop_.value(addr, pendingNone);
  }
  void pendingNexthopIs(const IpGenAddr& addr, PendingNexthopOperation op) {
    pendingNexthop_.valueIs(addr, op);
  }
  void pendingNexthopDel(const IpGenAddr& addr) { pendingNexthop_.del(addr); }
  const Vix::ValueMap<IpGenAddr, PendingNexthopOperation>& pendingNexthops() const {
    return pendingNexthop_;
  }
  const IpGenAddr& pendingNexthopBookmark() const { return pendingNexthopBookmark_; }
  void pendingNexthopBookmarkIs(const IpGenAddr& addr) { pendingNexthopBookmark_ = addr; }
  bool codefScheduled() const { return codefScheduled_; }
  void codefScheduledIs(bool scheduled) { codefScheduled_ = scheduled; }

  // Seconds one run of the loop may take; 0 switches programming off.
  double nexthopProgrammingTimeLimit() const { return nexthopProgrammingTimeLimit_; }
  void nexthopProgrammingTimeLimitIs(double limit);

  uint32_t nexthopsAdded() const { return nexthopsAdded_; }
  void nexthopsAddedInc(uint32_t n) { nexthopsAdded_ += n; }
  uint32_t nexthopsDeleted() const { return nexthopsDeleted_; }
  void nexthopsDeletedInc(uint32_t n) { nexthopsDeleted_ += n; }
  double lastProgrammingTime() const { return lastProgrammingTime_; }
  void lastProgrammingTimeIs(double t) { lastProgrammingTime_ = t; }
  double maxProgrammingTime() const { return maxProgrammingTime_; }
  void maxProgrammingTimeIs(double t) { maxProgrammingTime_ = t; }
  double totalProgrammingTime() const { return totalProgrammingTime_; }
  void totalProgrammingTimeInc(double t) { totalProgrammingTime_ += t; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // The clock the loop runs on, and its wake-up time (+infinity: parked).
  const Vix::Clock* deferredRouteTableClock() const;
  void deferredRouteTableClockIs(const Vix::Ptr<Vix::Clock>& clock);
  double deferredRouteTableClockTimeMin() const;

  // Reaction to every change of a nexthop's reference count.
  void handleNexthop(const IpGenAddr& addr);
  // Arms the loop when work is queued and a limit is set, parks it otherwise.
  void handleNexthopProgrammingTimeLimit();
  // One run of the loop.
  void handleClock();
  void handleInitialized();

  // -- Connected-subnet tracking ---------------------------------------------

  // The interface that holds each valid interface address (empty: none).
  Velnet::IntfId validSubnet(const Velnet::IpAddrWithMask& a) const {
    return validSubnet_.value(a);
  }
  void validSubnetIs(const Velnet::IpAddrWithMask& a, const Velnet::IntfId& intfId);
  // Removes the entry; the owner it had, or the empty id.
  Velnet::IntfId validSubnetDel(const Velnet::IpAddrWithMask& a);
  const Vix::ValueMap<Velnet::IpAddrWithMask, Velnet::IntfId>& validSubnets() const {
    return validSubnet_;
  }
  Velnet::IntfId validSubnet6(const Velnet::Ip6AddrWithMask& a) const {
    return validSubnet6_.value(a);
  }
  void validSubnet6Is(const Velnet::Ip6AddrWithMask& a, const Velnet::IntfId& intfId);
  Velnet::IntfId validSubnet6Del(const Velnet::Ip6AddrWithMask& a);
  const Vix::ValueMap<Velnet::Ip6AddrWithMask, Velnet::IntfId>& validSubnets6() const {
    return validSubnet6_;
  }

  // Decides whether one interface address is (still) valid.
  void handleIpIntfAddress(const Velnet::IntfId& intfId, const Velnet::IpAddrWithMask& a,
                           bool cleanup);
  void handleIp6IntfAddress(const Velnet::IntfId& intfId, const Velnet::Ip6AddrWithMask& a,
                            bool cleanup);
  // Brings the trie and the nexthops in line with validSubnet for `a`.
  void handleValidSubnet(const Velnet::IpAddrWithMask& a);
  void handleValidSubnet6(const Velnet::Ip6AddrWithMask& a);

  // The reactors on the platform's interface status.
  const Vix::Ptr<VixIpStatus>& ipStatus() const { return ipStatus_; }
  const Vix::Ptr<VixIp6Status>& ip6Status() const { return ip6Status_; }
  Vix::Ptr<VixIpIntfStatus> ipIntfStatus(const Velnet::IntfId& intfId) const {
    return ipIntfStatus_.member(intfId);
  }
  // Follows `status` with its own reactor (replacing one that followed an
  // older status of the same interface) and runs its full pass.
  void ipIntfStatusIs(const Vix::Ptr<const Ip::IpIntfStatus>& status);
  // Tears the interface's reactor down, withdrawing its addresses.
  void ipIntfStatusDel(const Velnet::IntfId& intfId);
  Vix::Ptr<VixIp6IntfStatus> ip6IntfStatus(const Velnet::IntfId& intfId) const {
    return ip6IntfStatus_.member(intfId);
  }
  void ip6IntfStatusIs(const Vix::Ptr<const Ip6::IntfStatus>& status);
  void ip6IntfStatusDel(const Velnet::IntfId& intfId);
  // Clean-up pass of a reactor being torn down.
  void vix_handleIpIntfStatus(VixIpIntfStatus* reactor);
  void vix_handleIp6IntfStatus(VixIp6IntfStatus* reactor);

 private:
  class DeferredRouteTableClock;

  // One entry of the loop: program or remove `addr` as `op` asks.
  void programOrRemove(const IpGenAddr& addr, PendingNexthopOperation op,
                       Vix::ValueMap<IpGenAddr, bool>::Iterator& waiting);
  void releaseResources(const IpGenAddr& addr);
  // Queues the first nexthop waiting for resources that is not programmed.
  void handOnResources(Vix::ValueMap<IpGenAddr, bool>::Iterator& waiting);
  void pendingNexthopIsAndArm(const IpGenAddr& addr, PendingNexthopOperation op);

  std::optional<uint32_t> freeFwmark() const;
  std::optional<uint16_t> freeRouteTable() const;
  std::optional<uint16_t> freeIpRuleIndex() const;

  // Records `addr` in the collection of its connected subnet; false (and
  // flagged without subnet) when it lies in none.
  bool enterSubnet(const IpGenAddr& addr);
  // Removes `addr` from the collection of the subnet that covers it now.
  void leaveSubnet(const IpGenAddr& addr);
  // The connected IPv6 subnet of `a`, if any.
  std::optional<Velnet::Ip6Prefix> subnet6(const Velnet::Ip6Addr& a);
  void withoutSubnetIs(const IpGenAddr& addr);
  void withoutSubnetDel(const IpGenAddr& addr);

  Vix::ValueMap<IpGenAddr, uint32_t> nexthop_;
  Vix::ValueMap<IpGenAddr, bool> programmed_;
  Vix::ValueMap<IpGenAddr, uint32_t> fwmark_;
  Vix::ValueMap<IpGenAddr, uint32_t> routeTable_;
  Vix::ValueMap<IpGenAddr, uint32_t> ipRuleIndex_;
  Vix::ValueMap<uint32_t, IpGenAddr> addrForFwmark_;
  Vix::ValueMap<uint16_t, IpGenAddr> addrForRouteTable_;
  Vix::ValueMap<uint16_t, IpGenAddr> addrForIpRuleIndex_;
  uint32_t lastFwmark_ = 1;
  uint16_t lastRouteTable_ = 1;
  uint16_t lastIpRuleIndex_ = 1;
  Vix::ValueMap<IpGenAddr, bool> nexthopWithoutResources_;

  Vix::Ptr<Routing::Trie> trie_;
  Vix::Ptr<Routing6::Trie> trie6_;
  Vix::HashMap<SubnetAddrCollection, Velnet::Prefix> nexthopsForSubnet_;
  Vix::HashMap<Ip6SubnetAddrCollection, Velnet::Ip6Prefix> nexthopsForSubnet6_;
  Vix::ValueMap<Velnet::IpAddr, bool> nexthopWithoutSubnet_;
  Vix::ValueMap<Velnet::Ip6Addr, bool> nexthop6WithoutSubnet_;

  CommandRunner* commandRunner_;

  Vix::ValueMap<IpGenAddr, PendingNexthopOperation> pendingNexthop_;
  IpGenAddr pendingNexthopBookmark_;
  bool codefScheduled_ = false;
  double nexthopProgrammingTimeLimit_ = nexthopProgrammingTimeLimitDefault;
  uint32_t nexthopsAdded_ = 0;
  uint32_t nexthopsDeleted_ = 0;
  double lastProgrammingTime_ = 0.0;
  double maxProgrammingTime_ = 0.0;
  double totalProgrammingTime_ = 0.0;
  Vix::Ptr<DeferredRouteTableClock> deferredRouteTableClock_;
  bool initialized_ = false;

  Vix::ValueMap<Velnet::IpAddrWithMask, Velnet::IntfId> validSubnet_;
  Vix::ValueMap<Velnet::Ip6AddrWithMask, Velnet::IntfId> validSubnet6_;
  Vix::Ptr<VixIpStatus> ipStatus_;
  Vix::Ptr<VixIp6Status> ip6Status_;
  Vix::HashMap<VixIpIntfStatus, Velnet::IntfId> ipIntfStatus_;
  Vix::HashMap<VixIp6IntfStatus, Velnet::IntfId> ip6IntfStatus_;
  // Set while the manager is destroyed: reactors torn down then leave the
  // subnet tables alone.
  bool tearingDown_ = false;
};

Vix::Ptr<NexthopTableManager> nexthopTableManagerFactory(
    const Vix::Ptr<const Ip::Status>& ipStatus, const Vix::Ptr<const Ip6::Status>& ip6Status);

}  // namespace Pbr
