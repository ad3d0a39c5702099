// A NexthopTableManager wired to a recording command runner, with traces
// captured, testMode restored after the test, and helpers that read like the
// router's state ("192.0.2.0/24 is connected").
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "framework/Ptr.h"
#include "net/IpGenAddr.h"
#include "nexthop/NexthopTableManager.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"
#include "tests/support/RecordingCommandRunner.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

inline Velnet::IpGenAddr addr(const std::string& text) { return Velnet::IpGenAddr::parse(text); }

class NexthopTableManagerTest : public ::testing::Test {
 protected:
  NexthopTableManagerTest() { manager->commandRunnerIs(&runner); }
  ~NexthopTableManagerTest() override { Pbr::testMode = false; }

  // Makes a subnet connected, as the subnet tracking would.
  void connected(const std::string& prefix) {
    if (prefix.find(':') != std::string::npos) {
      manager->trie6Is()->routeIs(Velnet::Ip6Prefix::parse(prefix), true);
    } else {
      manager->trieIs()->routeIs(Velnet::Prefix::parse(prefix), true);
    }
  }

  // Runs the loop until nothing is queued; the number of runs.
  int runUntilIdle(int maxRuns = 1000) {
    int runs = 0;
    while (clock.runDue() > 0 && ++runs < maxRuns) {
    }
    return runs;
  }
  bool armed() const { return manager->deferredRouteTableClockTimeMin() <= clock.now(); }

  VirtualClock clock;
  TraceCapture traces;
  RecordingCommandRunner runner;
  Vix::Ptr<Ip::Status> ipStatus = Vix::make<Ip::Status>();
  Vix::Ptr<Ip6::Status> ip6Status = Vix::make<Ip6::Status>();
  Vix::Ptr<Pbr::NexthopTableManager> manager = Pbr::nexthopTableManagerFactory(ipStatus, ip6Status);
};

}  // namespace waymark::test
