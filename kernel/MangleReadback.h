// Kernel::MangleReadback: what the kernel's mangle table holds, read back
// with iptables-save (ip6tables-save), and which of it waymark did not
// write. waymark's own are the dispatch chain "TAMBRO_PBR_INTF", the policy
// chains "PBR_*", the rules in them, and the jump from PREROUTING to the
// dispatch chain; an earlier run's are as much waymark's as this run's.
// Everything else (a rule in a built-in chain, a chain of another name and
// its rules) is another tool's, which the dispatch chain's set-up would
// flush. Used by the daemon before that set-up, and by `--cleanup`.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace Kernel {

class MangleReadback {
 public:
  // The table as iptables-save prints it; `error` set when it could not be
  // read.
  static std::string save(bool v6, double timeLimit, std::string* error);
  // The lines of `save` that are not waymark's: "-A ..." rules and "-N
  // CHAIN" for each chain of another name.
  static std::vector<std::string> foreign(const std::string& save);
  // The user chains of `save`, waymark's and others'.
  static std::set<std::string> chains(const std::string& save);
  // The iptables-restore lines that remove waymark's part of `save` and
  // nothing else: the jump from PREROUTING, then every waymark chain
  // flushed, then deleted. Empty when there is nothing of waymark's.
  static std::vector<std::string> removal(const std::string& save);
};

}  // namespace Kernel
