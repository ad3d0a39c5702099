// Waymark::DriftRepair: keeps the kernel what the status says.
// When the kernel announces that a rule or route went (whoever removed it),
// it compares, once the nexthop loop is quiet, every programmed nexthop's
// rule and route with the kernel's, and puts back what is missing with the
// nexthop's own commands through the manager's runner, as the nexthop's
// programming would. What waymark removes itself belongs to a nexthop that
// is no longer programmed, and a nexthop whose link is down is not
// compared: neither counts as drift. Drift of the mangle tables is found
// by the MangleWatch and rebuilt by the router; it is counted, limited and
// shown here with the rest.
//
// Repairs are rate-limited so that a tool fighting waymark does not make
// both spin: after kRepairsPerMinute repairs within a minute, repairing stops
// (what is missing stays in the status) until the next reload. The
// KernelSession owns one.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernel/KernelRouting.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

class DriftRepair {
 public:
  static constexpr size_t kRepairsPerMinute = 10;
  // Whether a nexthop's link is up and holds its subnet.
  using Usable = std::function<bool(const Velnet::IpGenAddr&)>;

  // REQUIRES: `routing` outlives the repairer.
  explicit DriftRepair(Kernel::KernelRouting& routing) : routing_(routing) {}

  // Something was removed; run() looks a short grace after it first sees
  // that. The grace lets the link and address events that come with a link
  // going down be taken in first.
  void suspect() { suspected_ = true; }
  bool suspected() const { return suspected_; }
  // Compares and repairs when something was suspected and the loop is
  // quiet; the texts of what it found and did, for events and the log.
  std::vector<std::string> run(Pbr::NexthopTableManager& manager, const Usable& usable, double now);
  // Repairs again after they were stopped (a reload).
  void resume();
  // The mangle tables differ from what waymark wrote (`what`): true when
  // they may be rebuilt now; the texts for events and the log in `out`.
  bool mangleDrifted(const std::string& what, double now, std::vector<std::string>& out);
  // The mangle tables agree with what waymark wrote again, or their
  // rebuild failed (`error`).
  void mangleAgrees() { mangleMissing_.clear(); }
  void mangleRebuildFailed(const std::string& error) { mangleMissing_ = error; }
  // "drift" (what is missing, or "none") and the daemon's counters.
  void describe(nlohmann::json& status) const;

 private:
  Kernel::KernelRouting& routing_;
  bool suspected_ = false;
  double suspectedAt_ = -1.0;
  bool stopped_ = false;
  std::deque<double> recent_;  // times of the repairs in the last minute
  uint32_t repairs_ = 0;
  uint32_t drifts_ = 0;
  std::vector<std::string> missing_;
  std::string mangleMissing_;

  // True when one more repair stays within the limit; stops repairing,
  // saying so in `out`, when it does not.
  bool allow(double now, std::vector<std::string>& out);
};

}  // namespace Waymark
