// The kernel of `waymarkd --dry-run` (DryRunKernel): every `ip` command and
// every iptables-restore batch is printed to standard output, prefixed so
// that the two can be told apart, and reported as successful. Nothing of
// the kernel is read, so there is no previous run and no other tool.
#pragma once

#include <cstdio>
#include <string>

#include "daemon/RouterKernel.h"
#include "kernel/CommandRunner.h"
#include "kernel/IptablesWriter.h"

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

class DryRunKernel : public RouterKernel {
 public:
  Pbr::CommandRunner& runner(CommandExecutor) override { return runner_; }
  AclUtils::IptablesWriter& writer() override { return writer_; }

 private:
  PrintingCommandRunner runner_;
  PrintingIptablesWriter writer_;
};

}  // namespace Waymark
