#include "config/ReloadPlan.h"

#include <map>
#include <set>
#include <utility>

namespace Waymark {

namespace {

using Classes = std::map<std::string, const PolicyClassSpec*>;

std::map<std::string, Classes> byName(const ConfigModel& m) {
  std::map<std::string, Classes> out;
  for (const auto& [policy, classes] : m.policyMaps) {
    auto& named = out[policy];
    for (const auto& c : classes) named[c.className] = &c;
  }
  return out;
}

// The lists that differ between the two models (or exist in one only): each
// list compared once, however many classes use it.
std::set<std::string> changedLists(const ConfigModel& a, const ConfigModel& b) {
  std::set<std::string> out;
  for (const auto& [name, list] : a.accessLists) {
    const auto other = b.accessLists.find(name);
    if (other == b.accessLists.end() || !(other->second == list)) out.insert(name);
  }
  for (const auto& [name, list] : b.accessLists) {
    if (a.accessLists.count(name) == 0) out.insert(name);
  }
  return out;
}

// A class also changes when the lists it matches with change.
bool sameClass(const ConfigModel& a, const PolicyClassSpec& x, const ConfigModel& b,
               const PolicyClassSpec& y, const std::set<std::string>& changed) {
  if (!(x == y)) return false;
  const auto la = a.classMaps.find(x.className);
  const auto lb = b.classMaps.find(y.className);
  if ((la == a.classMaps.end()) != (lb == b.classMaps.end())) return false;
  if (la == a.classMaps.end()) return true;
  if (la->second != lb->second) return false;
  for (const auto& list : la->second) {
    if (changed.count(list) != 0) return false;
  }
  return true;
}

void addAll(std::vector<std::string>& out, const std::string& policy, const Classes& classes) {
  for (const auto& [name, entry] : classes) out.push_back(policy + "/" + name);
}

}  // namespace

ReloadPlan ReloadPlan::between(const ConfigModel& before, const ConfigModel& after) {
  ReloadPlan plan;
  const auto old = byName(before);
  const auto now = byName(after);
  const auto listsChanged = changedLists(before, after);
  for (const auto& [policy, classes] : now) {
    const auto was = old.find(policy);
    if (was == old.end()) {
      plan.policiesAdded.push_back(policy);
      addAll(plan.classesAdded, policy, classes);
      continue;
    }
    bool changed = before.policyMap(policy)->size() != classes.size();
    for (const auto& [name, entry] : classes) {
      const auto c = was->second.find(name);
      if (c == was->second.end()) {
        plan.classesAdded.push_back(policy + "/" + name);
        changed = true;
      } else if (!sameClass(before, *c->second, after, *entry, listsChanged)) {
        plan.classesChanged.push_back(policy + "/" + name);
        changed = true;
      }
    }
    for (const auto& [name, entry] : was->second) {
      if (classes.count(name) != 0) continue;
      plan.classesRemoved.push_back(policy + "/" + name);
      changed = true;
    }
    // Reordered classes change the policy too.
    if (changed || !(*before.policyMap(policy) == *after.policyMap(policy))) {
      plan.policiesChanged.push_back(policy);
    }
  }
  for (const auto& [policy, classes] : old) {
    if (now.count(policy) != 0) continue;
    plan.policiesRemoved.push_back(policy);
    addAll(plan.classesRemoved, policy, classes);
  }
  for (const auto& [intf, policy] : after.interfaces) {
    const auto was = before.interfaces.find(intf);
    if (was == before.interfaces.end()) {
      plan.interfacesBound.push_back(intf.stringValue());
    } else if (was->second != policy) {
      plan.interfacesMoved.push_back(intf.stringValue());
    }
  }
  for (const auto& [intf, policy] : before.interfaces) {
    if (after.interfaces.count(intf) == 0) plan.interfacesUnbound.push_back(intf.stringValue());
  }
  return plan;
}

nlohmann::json ReloadPlan::toJson() const {
  return {{"policiesAdded", policiesAdded},        {"policiesChanged", policiesChanged},
          {"policiesRemoved", policiesRemoved},    {"classesAdded", classesAdded},
          {"classesChanged", classesChanged},      {"classesRemoved", classesRemoved},
          {"interfacesBound", interfacesBound},    {"interfacesMoved", interfacesMoved},
          {"interfacesUnbound", interfacesUnbound}};
}

std::string ReloadPlan::text() const {
  const std::pair<const char*, const std::vector<std::string>*> parts[] = {
      {"policies added", &policiesAdded},        {"policies changed", &policiesChanged},
      {"policies removed", &policiesRemoved},    {"classes added", &classesAdded},
      {"classes changed", &classesChanged},      {"classes removed", &classesRemoved},
      {"interfaces bound", &interfacesBound},    {"interfaces moved", &interfacesMoved},
      {"interfaces unbound", &interfacesUnbound}};
  std::string out;
  for (const auto& [what, names] : parts) {
    if (names->empty()) continue;
    out += (out.empty() ? "" : "; ") + std::string(what) + ":";
    for (const auto& n : *names) out += " " + n;
  }
  return out.empty() ? "nothing" : out;
}

}  // namespace Waymark
