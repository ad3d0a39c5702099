#include "insight/ChangeNotices.h"

#include "insight/StatusReport.h"

namespace Waymark {

std::vector<ChangeNotices::Notice> ChangeNotices::since(const nlohmann::json& status,
                                                        std::set<std::string> warnings,
                                                        const Batches& batches) {
  std::vector<Notice> out;
  nexthops(status, out);
  for (const auto& w : warnings) {
    if (warned_.count(w) == 0) out.push_back({"warning", w});
  }
  warned_ = std::move(warnings);
  classes(status, out);
  for (const size_t i : {0, 1}) {
    if (batches.failed[i] > batchesFailed_[i]) {
      out.push_back({"batch-refused", std::string(i == 0 ? "ipv4" : "ipv6") +
                                          " iptables batch refused: " + batches.lastError[i]});
    }
    batchesFailed_[i] = batches.failed[i];
  }
  return out;
}

void ChangeNotices::nexthops(const nlohmann::json& status, std::vector<Notice>& out) {
  std::map<Velnet::IpGenAddr, std::string> states;
  std::map<Velnet::IpGenAddr, const nlohmann::json*> entries;
  for (const auto& n : status["nexthops"]) {
    const auto address = Velnet::IpGenAddr::parse(n["address"].get<std::string>());
    states[address] = n["state"];
    entries[address] = &n;
  }
  for (const auto& [address, state] : states) {
    const auto before = nexthopStates_.find(address);
    const std::string was = before == nexthopStates_.end() ? "" : before->second;
    if (state == was) continue;
    const std::string name = "nexthop " + address.stringValue();
    if (state == Reason::kProgrammed) {
      const auto& n = *entries[address];
      out.push_back({"nexthop-programmed", name + " programmed (table " + n["table"].dump() +
                                               ", mark " + n["fwmark"].dump() + ")"});
    } else if (was == Reason::kProgrammed) {
      out.push_back({"nexthop-withdrawn", name + " withdrawn: " + state});
    } else if (state == Reason::kKernelRefused) {
      out.push_back(
          {"nexthop-refused", name + " not programmed: the kernel refused its route or rule"});
    } else if (state == Reason::kNotRecorded) {
      out.push_back({"nexthop-refused", name + " not programmed: the state journal cannot record "
                                               "it; programmed once it can"});
    }
  }
  nexthopStates_ = std::move(states);
}

void ChangeNotices::classes(const nlohmann::json& status, std::vector<Notice>& out) {
  std::map<std::pair<std::string, std::string>, std::string> selections;
  for (const auto& p : status["policies"]) {
    for (const auto& c : p["classes"]) {
      if (c["passthrough"].get<bool>()) continue;
      const std::string nexthop = c["nexthop"].is_null() ? "none" : c["nexthop"].get<std::string>();
      const auto key = std::make_pair(p["name"].get<std::string>(), c["name"].get<std::string>());
      if (selections.count(key) != 0) continue;  // the other family's entry
      selections[key] = nexthop;
      const auto before = selections_.find(key);
      const std::string was = before == selections_.end() ? "none" : before->second;
      if (was == nexthop) continue;
      out.push_back({"class-nexthop", "policy " + key.first + " class " + key.second +
                                          ": nexthop " + was + " -> " + nexthop});
    }
  }
  selections_ = std::move(selections);
}

}  // namespace Waymark
