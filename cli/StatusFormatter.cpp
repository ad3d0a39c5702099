#include "cli/StatusFormatter.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <vector>

namespace Waymark {

namespace {

using Row = std::vector<std::string>;

std::string table(const Row& header, const std::vector<Row>& rows) {
  std::vector<size_t> width(header.size());
  for (size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
  for (const auto& r : rows) {
    for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
  }
  std::ostringstream out;
  auto line = [&](const Row& r) {
    std::string text;
    for (size_t c = 0; c < r.size(); ++c) {
      text += r[c];
      if (c + 1 < r.size()) text += std::string(width[c] - r[c].size() + 2, ' ');
    }
    out << text << "\n";
  };
  line(header);
  for (const auto& r : rows) line(r);
  return out.str();
}

std::string text(const nlohmann::json& j) {
  if (j.is_string()) return j.get<std::string>();
  if (j.is_null()) return "-";
  return j.dump();
}

}  // namespace

std::string StatusFormatter::policies(const nlohmann::json& status) {
  std::vector<Row> rows;
  for (const auto& p : status.at("policies")) {
    std::string intfs;
    for (const auto& i : p.at("interfaces")) intfs += (intfs.empty() ? "" : ",") + text(i);
    bool first = true;
    for (const auto& c : p.at("classes")) {
      const std::string target = c.at("passthrough").get<bool>() ? "passthrough"
                                 : c.at("nexthop").is_null()     ? "unresolved"
                                                                 : text(c.at("nexthop"));
      rows.push_back({first ? text(p.at("name")) : "", first ? text(p.at("family")) : "",
                      first ? text(p.at("chain")) : "", first ? (intfs.empty() ? "-" : intfs) : "",
                      text(c.at("name")) + " -> " + target});
      first = false;
    }
    if (first) {
      rows.push_back({text(p.at("name")), text(p.at("family")), text(p.at("chain")), intfs, "-"});
    }
  }
  return table({"POLICY", "FAMILY", "CHAIN", "INTERFACES", "CLASS -> NEXTHOP"}, rows);
}

std::string StatusFormatter::health(const nlohmann::json& nexthop) {
  const auto check = nexthop.value("healthCheck", nlohmann::json());
  if (!check.is_object()) return "-";
  std::ostringstream out;
  out << std::fixed << std::setprecision(0) << nexthop.value("health", "") << " (loss "
      << check.value("lossPercent", 0.0) << "%";
  if (check["rttMs"].is_number()) {
    out << ", " << std::setprecision(1) << check["rttMs"].get<double>() << " ms";
  }
  out << ")";
  return out.str();
}

std::string StatusFormatter::nexthops(const nlohmann::json& status) {
  std::vector<Row> rows;
  for (const auto& n : status.at("nexthops")) {
    rows.push_back({text(n.at("address")), text(n.at("refs")), text(n.at("fwmark")),
                    text(n.at("table")), text(n.at("priority")), text(n.at("state")),
                    health(n)});
  }
  return table({"NEXTHOP", "REFS", "MARK", "TABLE", "PRIORITY", "STATE", "HEALTH"}, rows);
}

std::string StatusFormatter::counters(const nlohmann::json& status) {
  std::vector<Row> rows;
  for (const auto& [group, values] : status.at("counters").items()) {
    for (const auto& [name, value] : values.items()) rows.push_back({group, name, text(value)});
  }
  const auto& q = status.at("queues");
  rows.push_back({"queues", "ipv4", text(q.at("ipv4"))});
  rows.push_back({"queues", "ipv6", text(q.at("ipv6"))});
  rows.push_back({"queues", "nexthopsPending", text(q.at("nexthopsPending"))});
  if (status.contains("daemon")) {
    for (const auto& [name, value] : status.at("daemon").items()) {
      rows.push_back({"daemon", name, text(value)});
    }
  }
  return table({"GROUP", "COUNTER", "VALUE"}, rows);
}

std::string StatusFormatter::classTraffic(const nlohmann::json& reply) {
  std::vector<Row> rows;
  for (const auto& c : reply.at("classes")) {
    rows.push_back({text(c.at("policy")), text(c.at("family")), text(c.at("class")),
                    text(c.at("packets")), text(c.at("bytes"))});
  }
  return table({"POLICY", "FAMILY", "CLASS", "PACKETS", "BYTES"}, rows);
}

std::string StatusFormatter::all(const nlohmann::json& status) {
  return policies(status) + "\n" + nexthops(status) + "\n" +
         (status.at("idle").get<bool>() ? "idle: all kernel work done\n"
                                        : "busy: kernel work pending\n");
}

}  // namespace Waymark
