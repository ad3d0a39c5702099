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

std::vector<std::string> StatusFormatter::health(const nlohmann::json& nexthop) {
  const auto check = nexthop.value("healthCheck", nlohmann::json());
  if (!check.is_object()) return {"-", "-", "-"};
  std::ostringstream loss;
  loss << std::fixed << std::setprecision(0) << check.value("lossPercent", 0.0) << "%";
  std::ostringstream rtt;
  if (check["rttMs"].is_number()) {
    rtt << std::fixed << std::setprecision(1) << check["rttMs"].get<double>() << "ms";
  } else {
    rtt << "-";
  }
  return {nexthop.value("health", ""), loss.str(), rtt.str()};
}

std::string StatusFormatter::nexthops(const nlohmann::json& status) {
  std::vector<Row> rows;
  for (const auto& n : status.at("nexthops")) {
    Row row = {text(n.at("address")), text(n.at("refs")), text(n.at("fwmark")), text(n.at("table")),
               text(n.at("priority"))};
    for (auto& cell : health(n)) row.push_back(std::move(cell));
    row.push_back(text(n.at("state")));
    rows.push_back(std::move(row));
  }
  // The state, free text, comes last, so that scripts can take the rest of
  // the line.
  return table({"NEXTHOP", "REFS", "MARK", "TABLE", "PRIORITY", "HEALTH", "LOSS", "RTT", "STATE"},
               rows);
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
  const std::string drift =
      status.contains("drift") ? "drift: " + status["drift"].get<std::string>() + "\n" : "";
  const auto startup = status.value("startup", nlohmann::json::object());
  const std::string phase = startup.value("phase", "running");
  const std::string starting =
      phase == "running"
          ? ""
          : "starting: " + phase +
                (startup.contains("rulesWaiting")
                     ? " (" + text(startup["rulesWaiting"]) + " rule operations waiting)"
                     : "") +
                (startup.value("writeError", "").empty()
                     ? ""
                     : "; writing the rules, attempt " + text(startup["writeAttempts"]) +
                           ", the last failed: " + text(startup["writeError"])) +
                "\n";
  return policies(status) + "\n" + nexthops(status) + "\n" + drift + starting +
         (status.at("idle").get<bool>() ? "idle: all kernel work done\n"
                                        : "busy: kernel work pending\n");
}

}  // namespace Waymark
