#include "config/Tunables.h"

#include <cmath>
#include <cstdlib>

#include "framework/Strep.h"

namespace Waymark {

namespace {

constexpr double kMaxSeconds = 3600;
constexpr uint32_t kMaxRulesPerInvocation = 100000;

bool seconds(const std::string& v, double* out) {
  char* end = nullptr;
  const double d = std::strtod(v.c_str(), &end);
  if (v.empty() || *end != '\0' || !std::isfinite(d) || d < 0 || d > kMaxSeconds) return false;
  *out = d;
  return true;
}

bool count(const std::string& v, uint32_t low, uint32_t high, uint32_t* out) {
  char* end = nullptr;
  const unsigned long c = std::strtoul(v.c_str(), &end, 10);
  if (v.empty() || *end != '\0' || v[0] == '-' || c < low || c > high) return false;
  *out = static_cast<uint32_t>(c);
  return true;
}

std::string secondsError(const std::string& name, const std::string& v) {
  return name + " must be a number of seconds from 0 to 3600, not " + Vix::quoted(v);
}

}  // namespace

const std::vector<std::string>& Tunables::names() {
  static const std::vector<std::string> kNames = {
      "nexthop-programming-time-limit", "rules-per-invocation", "rule-programming-time-limit",
      "command-executor"};
  return kNames;
}

std::string Tunables::assign(const std::string& name, const std::string& v) {
  if (name == "nexthop-programming-time-limit") {
    return seconds(v, &nexthopProgrammingTimeLimit) ? "" : secondsError(name, v);
  }
  if (name == "rule-programming-time-limit") {
    return seconds(v, &ruleProgrammingTimeLimit) ? "" : secondsError(name, v);
  }
  if (name == "rules-per-invocation") {
    if (count(v, 1, kMaxRulesPerInvocation, &rulesPerInvocation)) return "";
    return name + " must be a whole number from 1 to " + std::to_string(kMaxRulesPerInvocation) +
           ", not " + Vix::quoted(v);
  }
  if (name == "command-executor") {
    if (v == "shell" || v == "netlink") {
      commandExecutor = v == "shell" ? CommandExecutor::shell : CommandExecutor::netlink;
      return "";
    }
    return name + " must be shell or netlink, not " + Vix::quoted(v);
  }
  return "unknown tunable " + Vix::quoted(name) +
         " (nexthop-programming-time-limit, rules-per-invocation, rule-programming-time-limit "
         "or command-executor)";
}

}  // namespace Waymark
