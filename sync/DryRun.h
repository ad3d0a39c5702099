// The kernel of `waymarkd --dry-run` (DryRunKernel): every `ip` command and
// every iptables-restore batch is printed to standard output, prefixed so
// that the two can be told apart, and reported as successful. The plan is
// made against the current kernel: what the state journal and the kernel's
// rules and tables say is read (never written), so numbers another tool
// uses are not handed out and the previous run's nexthops get their numbers
// back, as in a real start.
#pragma once

#include <cstdio>
#include <string>

#include <memory>
#include <optional>
#include <vector>

#include "kernel/CommandRunner.h"
#include "kernel/IptablesWriter.h"
#include "kernel/KernelRouting.h"
#include "kernel/StateJournal.h"
#include "sync/ForeignNumbers.h"
#include "sync/PreviousRun.h"
#include "sync/RouterKernel.h"

namespace Waymark {

class PrintingCommandRunner : public Pbr::CommandRunner {
 public:
  Pbr::CommandOutcome run(const Pbr::RoutingRequest& request) override {
    std::printf("dry-run: %s\n", request.text.c_str());
    std::fflush(stdout);
    return Pbr::CommandOutcome::exited(0);
  }
};

class PrintingIptablesWriter : public AclUtils::IptablesWriter {
 public:
  std::optional<AclUtils::IptablesWriteResult> write(Acl::AclType type,
                                                     const std::string& text) override {
    std::printf("dry-run: %s <<EOF\n%sEOF\n",
                type == Acl::aclTypeIpv6 ? "ip6tables-restore --noflush -w"
                                         : "iptables-restore --noflush -w",
                text.c_str());
    std::fflush(stdout);
    return AclUtils::IptablesWriteResult{};
  }
};

// A dry run sends no probes: every checked nexthop stays up while it runs.
class NoProbes : public Kernel::ProbeSender {
 public:
  bool send(const Kernel::Probe&) override { return false; }
};

class DryRunKernel : public RouterKernel {
 public:
  // Reads the journal at `statePath` and the kernel's rules and tables.
  explicit DryRunKernel(const std::string& statePath) : journal_(statePath) {
    journal_.load();
    Kernel::KernelRouting routing;
    std::vector<Kernel::PolicyRule> rules;
    std::vector<Kernel::RouteTableId> tables;
    for (const bool v6 : {false, true}) {
      for (const auto& rule : routing.rules(v6)) rules.push_back(rule);
      for (const auto& [table, routes] : routing.routeTables(v6)) tables.push_back({v6, table});
    }
    foreign_ = ForeignNumbers::of(rules, tables, journal_);
    previous_.emplace(journal_, rules);
  }

  Pbr::CommandRunner& runner(CommandExecutor) override { return runner_; }
  AclUtils::IptablesWriter& writer() override { return writer_; }
  Kernel::ProbeSender& prober() override { return prober_; }
  void reserveNumbers(Pbr::NexthopTableManager& manager) override { foreign_.reserveIn(manager); }
  void adopt(Pbr::NexthopTableManager& manager,
             const std::vector<Velnet::IpGenAddr>& nexthops) override {
    previous_->adoptInto(manager, nexthops);
  }

 private:
  PrintingCommandRunner runner_;
  PrintingIptablesWriter writer_;
  NoProbes prober_;
  Kernel::StateJournal journal_;
  ForeignNumbers foreign_;
  std::optional<PreviousRun> previous_;
};

}  // namespace Waymark
