// Runs a configuration file's text through everything between it and the
// kernel: the loader and the whole router core on virtual time,
// with every interface the file names given addresses that cover the
// documentation ranges, so that its nexthops are programmed too. It returns
// what would reach the kernel's tools, for the checks of KernelText.h.
// Used by the hostile-input tests and the configuration fuzzer.
#pragma once

#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "tests/support/PbrSystem.h"

namespace waymark::test {

struct KernelTexts {
  std::vector<std::string> lines;     // iptables-restore lines, both families
  std::vector<std::string> commands;  // routing command lines
};

// REQUIRES: `text` loads (the loader's ConfigError passes through).
inline KernelTexts kernelTextsOf(const std::string& text) {
  const Waymark::ConfigModel model = Waymark::ConfigLoader::loadString(text, "fuzz.yaml");
  PbrSystem world;
  for (const auto& [intf, policyName] : model.interfaces) {
    world.address(intf.stringValue(), "192.0.2.254/24");
    world.address6(intf.stringValue(), "2001:db8::fe/32");
  }
  world.router.start(model);
  world.runUntilIdle();
  KernelTexts out;
  out.lines = world.writer.lines(Acl::aclTypeIpv4);
  for (auto& l : world.writer.lines(Acl::aclTypeIpv6)) out.lines.push_back(std::move(l));
  out.commands = world.runner.commands;
  return out;
}

}  // namespace waymark::test
