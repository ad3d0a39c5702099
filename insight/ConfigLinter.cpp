#include "insight/ConfigLinter.h"

#include <optional>
#include <set>
#include <utility>

#include "framework/String.h"
#include "insight/ShadowIndex.h"

namespace Waymark {

namespace {

bool portsCovered(const Acl::PortSpec& outer, const Acl::PortSpec& inner) {
  if (outer.op == Acl::PortOp::any) return true;
  // A rule without ports also takes packets that have none.
  if (inner.op == Acl::PortOp::any) return false;
  for (const auto& [lo, hi] : inner.intervals()) {
    bool inside = false;
    for (const auto& [olo, ohi] : outer.intervals()) inside = inside || (olo <= lo && hi <= ohi);
    if (!inside) return false;
  }
  return true;
}

bool addressCovered(const Acl::AddrSpec& outer, const Acl::AddrSpec& inner) {
  if (outer.any) return true;
  return !inner.any && inner.len >= outer.len && outer.contains(inner.addr);
}

std::string at(const ConfigModel& model, size_t line) {
  return model.file + ":" + std::to_string(line) + ": warning: ";
}

template <class Map, class Key>
size_t lineOf(const Map& lines, const Key& key) {
  const auto it = lines.find(key);
  return it == lines.end() ? 0 : it->second;
}

struct SubRule {
  const std::string* className;
  const std::string* list;
  const Acl::AclRuleConfig* rule;
};

void shadowed(const ConfigModel& model, const std::string& policy,
              const std::vector<PolicyClassSpec>& classes, std::vector<std::string>& out) {
  ShadowIndex index;
  std::vector<SubRule> seen;
  for (const auto& c : classes) {
    const auto lists = model.classMaps.find(c.className);
    if (lists == model.classMaps.end()) continue;
    size_t rules = 0;
    size_t dead = 0;
    std::string coveringClass;
    for (const auto& listName : lists->second) {
      const auto& list = model.accessLists.at(listName);
      for (const auto& [seq, rule] : list.rules) {
        ++rules;
        // Each sub-rule must be covered by some earlier one; the last cover
        // found names the rule in the warning.
        std::optional<size_t> cover;
        for (const auto& flags : rule.subRuleFlags()) {
          cover = index.firstCover(rule, flags.value());
          if (!cover) break;
        }
        for (const auto& flags : rule.subRuleFlags()) {
          index.add(rule, flags.value(), seen.size());
          seen.push_back({&c.className, &listName, &rule});
        }
        if (!cover) continue;
        ++dead;
        const SubRule& by = seen[*cover];
        if (*by.className != c.className) coveringClass = *by.className;
        out.push_back(at(model, lineOf(model.lines.rules, std::make_pair(listName, seq))) +
                      "rule " + Vix::quoted(rule.text()) + " of list " + Vix::quoted(listName) +
                      " can never match in policy " + Vix::quoted(policy) + ": rule " +
                      Vix::quoted(by.rule->text()) + " of list " + Vix::quoted(*by.list) +
                      " (class " + Vix::quoted(*by.className) + ") takes its traffic first");
      }
    }
    if (rules != 0 && dead == rules && !coveringClass.empty()) {
      out.push_back(
          at(model, lineOf(model.lines.policyClasses, std::make_pair(policy, c.className))) +
          "class " + Vix::quoted(c.className) + " can never match in policy " +
          Vix::quoted(policy) + ": earlier classes take all its traffic");
    }
  }
}

void familiesWithoutNexthop(const ConfigModel& model, const std::string& policy,
                            const std::vector<PolicyClassSpec>& classes,
                            std::vector<std::string>& out) {
  for (const auto& c : classes) {
    if (c.passthrough || c.nexthops.empty()) continue;
    const auto lists = model.classMaps.find(c.className);
    if (lists == model.classMaps.end()) continue;
    for (const bool v6 : {false, true}) {
      bool hasList = false;
      for (const auto& l : lists->second) hasList = hasList || model.accessLists.at(l).ipv6 == v6;
      bool hasNexthop = false;
      for (const auto& n : c.nexthops) hasNexthop = hasNexthop || n.isV6() == v6;
      if (!hasList || hasNexthop) continue;
      out.push_back(
          at(model, lineOf(model.lines.policyClasses, std::make_pair(policy, c.className))) +
          "class " + Vix::quoted(c.className) + " in policy " + Vix::quoted(policy) + " has " +
          (v6 ? "IPv6" : "IPv4") + " lists but no " + (v6 ? "IPv6" : "IPv4") +
          " nexthop: that traffic follows the normal route");
    }
  }
}

void unused(const ConfigModel& model, std::vector<std::string>& out) {
  std::set<std::string> lists;
  std::set<std::string> classes;
  std::set<std::string> groups;
  std::set<Velnet::IpGenAddr> nexthops;
  for (const auto& [name, entries] : model.policyMaps) {
    for (const auto& c : entries) {
      classes.insert(c.className);
      if (!c.nexthopGroup.empty()) groups.insert(c.nexthopGroup);
      nexthops.insert(c.nexthops.begin(), c.nexthops.end());
    }
  }
  for (const auto& [name, used] : model.classMaps) {
    for (const auto& l : used) lists.insert(l);
    if (classes.count(name) == 0) {
      out.push_back(at(model, lineOf(model.lines.classMaps, name)) + "class " + Vix::quoted(name) +
                    " is in no policy");
    }
  }
  for (const auto& [name, list] : model.accessLists) {
    if (lists.count(name) != 0) continue;
    out.push_back(at(model, lineOf(model.lines.accessLists, name)) + "access list " +
                  Vix::quoted(name) + " is in no class");
  }
  for (const auto& [name, group] : model.nexthopGroups) {
    if (groups.count(name) != 0) continue;
    out.push_back(at(model, lineOf(model.lines.nexthopGroups, name)) + "nexthop group " +
                  Vix::quoted(name) + " is used by no class");
  }
  for (const auto& [nexthop, check] : model.healthChecks) {
    if (nexthops.count(nexthop) != 0) continue;
    out.push_back(at(model, lineOf(model.lines.healthChecks, nexthop)) + "health check of " +
                  nexthop.stringValue() + " is for a nexthop that no class uses");
  }
}

}  // namespace

bool ConfigLinter::covers(const Acl::AclRuleConfig& outer, uint8_t outerFlags,
                          const Acl::AclRuleConfig& inner, uint8_t innerFlags) {
  if (outer.ipv6 != inner.ipv6) return false;
  if (outer.protocol && outer.protocol != inner.protocol) return false;
  if (!addressCovered(outer.src, inner.src) || !addressCovered(outer.dst, inner.dst)) return false;
  if (!portsCovered(outer.srcPorts, inner.srcPorts) ||
      !portsCovered(outer.dstPorts, inner.dstPorts)) {
    return false;
  }
  // Every packet with the inner flags set has the outer ones set too.
  return (outerFlags & ~innerFlags) == 0;
}

std::vector<std::string> ConfigLinter::warnings(const ConfigModel& model) {
  std::vector<std::string> out;
  for (const auto& [policy, classes] : model.policyMaps) {
    shadowed(model, policy, classes, out);
    familiesWithoutNexthop(model, policy, classes, out);
  }
  unused(model, out);
  return out;
}

}  // namespace Waymark
