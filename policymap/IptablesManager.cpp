#include "policymap/IptablesManager.h"

#include <regex>
#include <set>
#include <sstream>
#include <utility>

namespace AclUtils {

namespace {

std::string joinPorts(const std::vector<uint16_t>& ports) {
  std::string out;
  for (const uint16_t p : ports) {
    if (!out.empty()) out += ',';
    out += std::to_string(p);
  }
  return out;
}

// A single port or a range, as --sport/--dport take it; empty for several
// ports (multiport) or none.
std::string portOption(const Acl::PortSpec& entry) {
  switch (entry.op) {
    case Acl::PortOp::eq:
      return entry.ports.size() == 1 ? std::to_string(entry.ports[0]) : "";
    case Acl::PortOp::range:
      return std::to_string(entry.ports[0]) + ":" + std::to_string(entry.ports[1]);
    case Acl::PortOp::gt:
      return std::to_string(entry.ports[0] + 1) + ":65535";
    case Acl::PortOp::lt:
      return "0:" + std::to_string(entry.ports[0] - 1);
    case Acl::PortOp::any:
      break;
  }
  return "";
}

bool multiport(const Acl::PortSpec& entry) {
  return entry.op == Acl::PortOp::eq && entry.ports.size() > 1;
}

// The line of `text` the tool's message points at ("... line: 3" or
// "line 3 failed"), or "".
std::string failingLine(const std::string& message, const std::string& text) {
  static const std::regex kLine(R"(line:? ([0-9]+))");
  std::smatch m;
  if (!std::regex_search(message, m, kLine)) return "";
  const long wanted = std::stol(m[1]);
  long line = 1;
  size_t start = 0;
  while (line < wanted && start < text.size()) {
    const size_t nl = text.find('\n', start);
    if (nl == std::string::npos) return "";
    start = nl + 1;
    ++line;
  }
  const size_t end = text.find('\n', start);
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

std::string IptablesManager::doGetRuleMatch(const Acl::AclRuleConfig& rule, RuleMatchTarget) const {
  std::string out;
  auto add = [&](const std::string& part) {
    if (part.empty()) return;
    if (!out.empty()) out += ' ';
    out += part;
  };
  const std::string proto = rule.protocol ? Acl::Protocol::name(*rule.protocol) : "";
  if (rule.protocol) add("-p " + proto);
  if (!rule.src.any) add("-s " + rule.src.prefixText());
  if (!rule.dst.any) add("-d " + rule.dst.prefixText());

  std::string protoOptions;
  const std::string sport = portOption(rule.srcPorts);
  const std::string dport = portOption(rule.dstPorts);
  if (!sport.empty()) protoOptions += " --sport " + sport;
  if (!dport.empty()) protoOptions += " --dport " + dport;
  if (!rule.tcpFlag.empty()) {
    protoOptions += " --tcp-flags " + rule.tcpFlag.names() + " " + rule.tcpFlag.names();
  }
  if (!protoOptions.empty()) add("-m " + proto + protoOptions);
  // One multiport match cannot take both sides.
  if (multiport(rule.srcPorts)) add("-m multiport --sports " + joinPorts(rule.srcPorts.ports));
  if (multiport(rule.dstPorts)) add("-m multiport --dports " + joinPorts(rule.dstPorts.ports));
  return out;
}

void IptablesManager::writeIptablesRules(const std::string& text, const Ip::VrfName& vrf) {
  if (vrf.stringValue() != "default") {
    failed("VRF '" + vrf.stringValue() + "' is not served", "");
    return;
  }
  if (type_ == Acl::aclTypeOther) {
    failed("no iptables for this address family", "");
    return;
  }
  if (const auto result = writer_->write(type_, text)) outcomeIs(*result, text);
}

void IptablesManager::outcomeIs(const IptablesWriteResult& result, const std::string& text) {
  if (!result.ok) {
    failed(result.error, result.failedText.empty() ? text : result.failedText);
    return;
  }
  ++batchesWritten_;
}

void IptablesManager::failed(const std::string& error, const std::string& text) {
  ++batchesFailed_;
  lastError_ = error;
  while (!lastError_.empty() && (lastError_.back() == '\n' || lastError_.back() == ' ')) {
    lastError_.pop_back();
  }
  const std::string line = failingLine(error, text);
  if (!line.empty()) lastError_ += " [failing line: " + line + "]";
}

}  // namespace AclUtils
