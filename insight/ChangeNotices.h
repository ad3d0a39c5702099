// Waymark::ChangeNotices: what changed since the last look, as events: each
// nexthop's state, new run-time warnings, each class's nexthop, refused
// iptables batches. The router hands it the status of the moment (as
// StatusReport builds it) and the batch counters; it keeps what it saw.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "net/IpGenAddr.h"

namespace Waymark {

class ChangeNotices {
 public:
  struct Notice {
    std::string kind;
    std::string text;
  };
  // Per family (IPv4, IPv6): batches failed so far, and the last error.
  struct Batches {
    uint32_t failed[2] = {0, 0};
    std::string lastError[2];
  };

  std::vector<Notice> since(const nlohmann::json& status, std::set<std::string> warnings,
                            const Batches& batches);

 private:
  void nexthops(const nlohmann::json& status, std::vector<Notice>& out);
  void classes(const nlohmann::json& status, std::vector<Notice>& out);

  std::map<Velnet::IpGenAddr, std::string> nexthopStates_;
  std::set<std::string> warned_;
  std::map<std::pair<std::string, std::string>, std::string> selections_;
  uint32_t batchesFailed_[2] = {0, 0};
};

}  // namespace Waymark
