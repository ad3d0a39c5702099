// Kernel::MangleReadback: what the kernel's mangle table holds, read back
// with iptables-save (ip6tables-save), and which of it waymark did not
// write. waymark's own are the dispatch chain "TAMBRO_PBR_INTF", the policy
// chains "PBR_*", the rules in them, and the jump from PREROUTING to the
// dispatch chain; an earlier run's are as much waymark's as this run's.
// Everything else (a rule in a built-in chain, a chain of another name and
// its rules) is another tool's, which the dispatch chain's set-up would
// flush. Used by the daemon before that set-up, and by `--cleanup`.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Kernel {

class MangleReadback {
 public:
  static constexpr const char* kDispatchChain = "TAMBRO_PBR_INTF";

  // waymark's part of a table: its chains, their rules as iptables-save
  // prints them, and how many jumps PREROUTING makes to the dispatch chain.
  struct OwnPart {
    std::map<std::string, std::vector<std::string>> chains;
    size_t jumps = 0;
    bool operator==(const OwnPart&) const = default;
  };

  struct Counter {
    uint64_t packets = 0;
    uint64_t bytes = 0;
  };
  // Each chain's rules' counters, in the chains' order.
  using RuleCounters = std::map<std::string, std::vector<Counter>>;

  // The table as iptables-save prints it, with each rule's counters when
  // `counters`; `error` set when it could not be read.
  static std::string save(bool v6, double timeLimit, std::string* error, bool counters = false);
  // The counters of a save taken with counters ("[P:B] -A CHAIN ...").
  static RuleCounters ruleCounters(const std::string& save);
  // The lines of `save` that are not waymark's: "-A ..." rules and "-N
  // CHAIN" for each chain of another name.
  static std::vector<std::string> foreign(const std::string& save);
  static OwnPart own(const std::string& save);
  // The marks waymark's own rules in `save` set ("-j MARK --set-xmark M/..."
  // or "--set-mark M"): what tells its ip rules from others' when the state
  // file cannot.
  static std::set<uint32_t> marksSet(const std::string& save);
  // The user chains of `save`, waymark's and others'.
  static std::set<std::string> chains(const std::string& save);
  // The iptables-restore lines that remove waymark's part of `save` and
  // nothing else: the jump from PREROUTING, then every waymark chain
  // flushed, then deleted. Empty when there is nothing of waymark's.
  static std::vector<std::string> removal(const std::string& save);
};

}  // namespace Kernel
