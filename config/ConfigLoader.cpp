#include "config/ConfigLoader.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

#include "config/ConfigFile.h"
#include "config/YamlDocument.h"
#include "framework/Errors.h"
#include "framework/String.h"
#include "policymap/AclRuleParser.h"

namespace Waymark {

namespace {

class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  [[noreturn]] void failFile(const std::string& why) const {
    throw ConfigError(file_ + ": " + why);
  }
  [[noreturn]] void fail(const YamlNode& at, const std::string& why) const {
    throw ConfigError(file_ + ":" + std::to_string(at.line()) + ":" + std::to_string(at.column()) +
                      ": " + why);
  }

  std::string scalar(const YamlNode& n, const std::string& what) const {
    if (!n.isScalar()) fail(n, what + " must be a single value");
    return n.scalar();
  }
  void requireMap(const YamlNode& n, const std::string& what) const {
    if (!n.isMap()) fail(n, what + " must be a mapping of keys to values");
  }
  void requireSequence(const YamlNode& n, const std::string& what) const {
    if (!n.isSequence()) fail(n, what + " must be a list");
  }
  // The map's entries, refusing duplicate and unknown keys.
  std::vector<std::pair<YamlNode, YamlNode>> entries(const YamlNode& map, const std::string& what,
                                                     const std::set<std::string>& known = {}) {
    requireMap(map, what);
    auto out = map.pairs();
    std::set<std::string> seen;
    for (const auto& [keyNode, value] : out) {
      const std::string key = scalar(keyNode, "a key of " + what);
      if (!seen.insert(key).second) fail(keyNode, "duplicate key " + Vix::quoted(key));
      if (!known.empty() && known.count(key) == 0) {
        fail(keyNode, "unknown key " + Vix::quoted(key) + " in " + what);
      }
    }
    return out;
  }
  std::string name(const YamlNode& n, const std::string& what) const {
    const std::string value = scalar(n, what);
    if (!ConfigLoader::validName(value)) {
      fail(n, "invalid " + what + " " + Vix::quoted(value) +
                  " (1 to 64 letters, digits, '_', '.', ':' or '-', not starting with '-')");
    }
    return value;
  }
  bool boolean(const YamlNode& n, const std::string& what) const {
    const std::string v = scalar(n, what);
    if (v == "true") return true;
    if (v == "false") return false;
    fail(n, what + " must be true or false, not " + Vix::quoted(v));
  }
  // A number from `low` to `high`; `integer` refuses fractions.
  double number(const YamlNode& n, const std::string& what, double low, double high,
                bool integer = false) const {
    const std::string text = scalar(n, what);
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    const bool whole = !integer || v == std::floor(v);
    if (text.empty() || *end != '\0' || !std::isfinite(v) || v < low || v > high || !whole) {
      std::ostringstream range;
      range << low << " to " << high;
      fail(n, what + " must be " + (integer ? "a whole number" : "a number") + " from " +
                  range.str() + ", not " + Vix::quoted(text));
    }
    return v;
  }
  MangleTable mangleTable(const YamlNode& n) const {
    const std::string v = scalar(n, "mangle-table");
    if (v == "refuse-if-foreign") return MangleTable::refuseIfForeign;
    if (v == "take-over") return MangleTable::takeOver;
    fail(n, "mangle-table must be refuse-if-foreign or take-over, not " + Vix::quoted(v));
  }

 private:
  std::string file_;
};

void readTunables(Reader& r, const YamlNode& node, Tunables& t) {
  const auto& names = Tunables::names();
  for (const auto& [key, value] :
       r.entries(node, "tunables", std::set<std::string>(names.begin(), names.end()))) {
    const std::string k = key.scalar();
    const std::string error = t.assign(k, r.scalar(value, k));
    if (!error.empty()) r.fail(value, error);
  }
}

AccessListSpec readAccessList(Reader& r, const std::string& listName, const YamlNode& node,
                              SourceLines& lines) {
  AccessListSpec list;
  YamlNode rules = node;
  if (node.isMap()) {
    rules = YamlNode();
    for (const auto& [key, value] : r.entries(node, "access list " + listName, {"ipv6", "rules"})) {
      if (key.scalar() == "ipv6") list.ipv6 = r.boolean(value, "ipv6");
      if (key.scalar() == "rules") rules = value;
    }
    if (!rules) r.fail(node, "access list " + Vix::quoted(listName) + " has no rules");
  }
  r.requireSequence(rules, "the rules of access list " + Vix::quoted(listName));
  uint32_t last = 0;
  for (const auto& ruleNode : rules.items()) {
    const std::string text = r.scalar(ruleNode, "an access-list rule");
    Acl::AclRuleConfig rule;
    try {
      rule = Acl::AclRuleParser::parse(text, list.ipv6);
    } catch (const Vix::ParseError& e) {
      r.fail(ruleNode, std::string(e.what()) + " in rule " + Vix::quoted(text));
    }
    if (rule.seqNo == 0) {
      if (last > 0xffffffffu - 10) r.fail(ruleNode, "no sequence number left for this rule");
      rule.seqNo = last + 10;
    }
    if (list.rules.count(rule.seqNo) != 0) {
      r.fail(ruleNode, "sequence number " + std::to_string(rule.seqNo) + " used twice in " +
                           Vix::quoted(listName));
    }
    last = std::max(last, rule.seqNo);
    list.rules.emplace(rule.seqNo, rule);
    lines.rules[{listName, rule.seqNo}] = ruleNode.line();
  }
  return list;
}

// A non-empty list of distinct nexthop addresses, in order.
std::vector<Velnet::IpGenAddr> readNexthopList(Reader& r, const YamlNode& node,
                                               const std::string& what) {
  r.requireSequence(node, what);
  const auto items = node.items();
  if (items.empty()) r.fail(node, what + " must name at least one address");
  std::vector<Velnet::IpGenAddr> out;
  for (const auto& nh : items) {
    const std::string text = r.scalar(nh, "a nexthop");
    const auto addr = Velnet::IpGenAddr::tryParse(text);
    if (!addr) r.fail(nh, "invalid nexthop address " + Vix::quoted(text));
    if (std::find(out.begin(), out.end(), *addr) != out.end()) {
      r.fail(nh, "nexthop " + Vix::quoted(text) + " listed twice");
    }
    out.push_back(*addr);
  }
  return out;
}

HealthCheckSpec readHealthCheck(Reader& r, const Velnet::IpGenAddr& nexthop, const YamlNode& node) {
  HealthCheckSpec check;
  if (!node.isNull()) {
    const std::string what = "the health check of " + nexthop.stringValue();
    for (const auto& [key, value] :
         r.entries(node, what, {"targets", "interval", "timeout", "down-after", "up-after"})) {
      const std::string k = key.scalar();
      if (k == "targets") {
        check.targets = readNexthopList(r, value, "targets");
        for (size_t i = 0; i < check.targets.size(); ++i) {
          if (check.targets[i].family() == nexthop.family()) continue;
          r.fail(value.items()[i], "target " + check.targets[i].stringValue() + " is not " +
                                       (nexthop.isV4() ? "IPv4" : "IPv6") + " like nexthop " +
                                       nexthop.stringValue());
        }
      } else if (k == "interval") {
        check.interval = r.number(value, "interval", 0.05, 60);
      } else if (k == "timeout") {
        check.timeout = r.number(value, "timeout", 0.05, 60);
      } else if (k == "down-after") {
        check.downAfter = static_cast<uint32_t>(r.number(value, "down-after", 1, 100, true));
      } else {
        check.upAfter = static_cast<uint32_t>(r.number(value, "up-after", 1, 100, true));
      }
    }
  }
  if (check.targets.empty()) check.targets = {nexthop};
  return check;
}

PolicyClassSpec readPolicyClass(Reader& r, const ConfigModel& model, const YamlNode& node) {
  PolicyClassSpec entry;
  int targets = 0;
  YamlNode classNode;
  for (const auto& [key, value] :
       r.entries(node, "a class of a policy map",
                 {"class", "nexthops", "nexthop-group", "passthrough"})) {
    const std::string k = key.scalar();
    if (k == "class") {
      entry.className = r.name(value, "class name");
      classNode = value;
    } else if (k == "nexthops") {
      ++targets;
      entry.nexthops = readNexthopList(r, value, "nexthops");
    } else if (k == "nexthop-group") {
      ++targets;
      entry.nexthopGroup = r.name(value, "nexthop group name");
      const auto group = model.nexthopGroups.find(entry.nexthopGroup);
      if (group == model.nexthopGroups.end()) {
        r.fail(value, "unknown nexthop group " + Vix::quoted(entry.nexthopGroup) +
                          " (not in nexthop-groups)");
      }
      // Resolved here: the class selects over the group's list in its order.
      entry.nexthops = group->second;
    } else {
      ++targets;
      entry.passthrough = r.boolean(value, "passthrough");
      if (!entry.passthrough) r.fail(value, "passthrough can only be true (leave it out instead)");
    }
  }
  if (entry.className.empty()) r.fail(node, "a class of a policy map needs 'class'");
  if (model.classMaps.count(entry.className) == 0) {
    r.fail(classNode, "unknown class " + Vix::quoted(entry.className) + " (not in class-maps)");
  }
  if (targets != 1) {
    r.fail(node, "class " + Vix::quoted(entry.className) +
                     " needs exactly one of nexthops, nexthop-group or passthrough");
  }
  return entry;
}

// The sections that say what to steer; a file with none of them is empty or
// cut short, and applying it would remove all steering.
constexpr const char* kSteeringSections[] = {"access-lists", "class-maps", "policy-maps",
                                             "interfaces"};

void readNexthopGroups(Reader& r, const YamlNode& groups, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(groups, "nexthop-groups")) {
    const std::string n = r.name(key, "nexthop group name");
    model.lines.nexthopGroups[n] = key.line();
    model.nexthopGroups.emplace(
        n, readNexthopList(r, value, "the nexthops of group " + Vix::quoted(n)));
  }
}

void readHealthChecks(Reader& r, const YamlNode& checks, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(checks, "health-checks")) {
    const std::string text = r.scalar(key, "a nexthop address");
    const auto nexthop = Velnet::IpGenAddr::tryParse(text);
    if (!nexthop) r.fail(key, "invalid nexthop address " + Vix::quoted(text));
    if (model.healthChecks.count(*nexthop) != 0) {
      r.fail(key, "nexthop " + Vix::quoted(text) + " has two health checks");
    }
    model.lines.healthChecks[*nexthop] = key.line();
    model.healthChecks.emplace(*nexthop, readHealthCheck(r, *nexthop, value));
  }
}

void readAccessLists(Reader& r, const YamlNode& lists, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(lists, "access-lists")) {
    const std::string n = r.name(key, "access-list name");
    model.lines.accessLists[n] = key.line();
    model.accessLists.emplace(n, readAccessList(r, n, value, model.lines));
  }
}

void readClassMaps(Reader& r, const YamlNode& classes, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(classes, "class-maps")) {
    const std::string n = r.name(key, "class name");
    r.requireSequence(value, "the access lists of class " + Vix::quoted(n));
    std::vector<std::string> lists;
    for (const auto& list : value.items()) {
      const std::string l = r.name(list, "access-list name");
      if (model.accessLists.count(l) == 0) {
        r.fail(list, "unknown access list " + Vix::quoted(l) + " in class " + Vix::quoted(n));
      }
      lists.push_back(l);
    }
    model.lines.classMaps[n] = key.line();
    model.classMaps.emplace(n, lists);
  }
}

void readPolicyMaps(Reader& r, const YamlNode& policies, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(policies, "policy-maps")) {
    const std::string n = r.name(key, "policy name");
    r.requireSequence(value, "the classes of policy " + Vix::quoted(n));
    std::vector<PolicyClassSpec> classes;
    std::set<std::string> seen;
    for (const auto& c : value.items()) {
      auto entry = readPolicyClass(r, model, c);
      if (!seen.insert(entry.className).second) {
        r.fail(c,
               "class " + Vix::quoted(entry.className) + " used twice in policy " + Vix::quoted(n));
      }
      model.lines.policyClasses[{n, entry.className}] = c.line();
      classes.push_back(std::move(entry));
    }
    model.policyMaps.emplace_back(n, std::move(classes));
  }
}

void readInterfaces(Reader& r, const YamlNode& intfs, ConfigModel& model) {
  for (const auto& [key, value] : r.entries(intfs, "interfaces")) {
    const std::string intf = r.scalar(key, "interface name");
    if (!Velnet::IntfId::validName(intf)) {
      r.fail(key, "invalid interface name " + Vix::quoted(intf) +
                      " (1 to 15 letters, digits, '_', '.' or '-', not starting with '-')");
    }
    const std::string policy = r.name(value, "policy name");
    if (!model.policyMap(policy)) {
      r.fail(value,
             "unknown policy " + Vix::quoted(policy) + " for interface " + Vix::quoted(intf));
    }
    model.interfaces.emplace(Velnet::IntfId(intf), policy);
  }
}

const char* const kEmpty =
    "no access-lists, class-maps, policy-maps or interfaces: the file is empty or cut short "
    "(say 'policy-maps: {}' and 'interfaces: {}' to mean none)";

using Entries = std::vector<std::pair<YamlNode, YamlNode>>;

// A key with nothing after it is what a file cut short looks like:
// emptiness is said explicitly.
void refuseEmptySections(Reader& r, const Entries& top) {
  for (const auto& [key, value] : top) {
    if (!value.isNull()) continue;
    r.fail(key, "section " + Vix::quoted(key.scalar()) +
                    " has no value (is the file cut short?); write '" + key.scalar() +
                    ": {}' to mean none");
  }
}

// The sections come in any order, so a file cut at any line lacks policies
// or interfaces unless it is whole.
void requireWhole(Reader& r, const YamlNode& root, const Entries& top) {
  std::set<std::string> present;
  for (const auto& [key, value] : top) present.insert(key.scalar());
  if (std::none_of(std::begin(kSteeringSections), std::end(kSteeringSections),
                   [&](const char* name) { return present.count(name) != 0; })) {
    r.fail(root, kEmpty);
  }
  if (present.count("policy-maps") == 0) {
    r.fail(root,
           "there is no policy-maps section (is the file cut short?); write 'policy-maps: {}' "
           "to define no policy on purpose");
  }
  if (present.count("interfaces") == 0) {
    r.fail(root,
           "there is no interfaces section (is the file cut short?); write 'interfaces: {}' to "
           "apply no policy on purpose");
  }
}

ConfigModel readModel(Reader& r, const YamlNode& root) {
  if (!root || root.isNull()) r.failFile(kEmpty);
  const Entries top = r.entries(root, "the configuration",
                                {"tunables", "mangle-table", "nexthop-groups", "health-checks",
                                 "access-lists", "class-maps", "policy-maps", "interfaces"});
  refuseEmptySections(r, top);
  using SectionReader = void (*)(Reader&, const YamlNode&, ConfigModel&);
  // In the order of their references: groups and checks before the classes
  // that use them, lists before classes, classes before policies before
  // interfaces.
  const std::pair<const char*, SectionReader> readers[] = {
      {"nexthop-groups", readNexthopGroups},
      {"health-checks", readHealthChecks},
      {"tunables",
       [](Reader& r, const YamlNode& t, ConfigModel& m) { readTunables(r, t, m.tunables); }},
      {"mangle-table",
       [](Reader& r, const YamlNode& t, ConfigModel& m) { m.mangleTable = r.mangleTable(t); }},
      {"access-lists", readAccessLists},
      {"class-maps", readClassMaps},
      {"policy-maps", readPolicyMaps},
      {"interfaces", readInterfaces}};
  ConfigModel model;
  for (const auto& [name, read] : readers) {
    for (const auto& [key, value] : top) {
      if (key.scalar() == name) read(r, value, model);
    }
  }
  requireWhole(r, root, top);
  return model;
}

}  // namespace

bool ConfigLoader::validName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name[0] == '-') return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '.' || c == ':' || c == '-';
    if (!ok) return false;
  }
  return true;
}

ConfigModel ConfigLoader::loadString(const std::string& text, const std::string& name) {
  Reader r(name);
  try {
    const YamlDocument document(text);
    ConfigModel model = readModel(r, document.root());
    model.file = name;
    return model;
  } catch (const YamlSyntaxError& e) {
    throw ConfigError(name + ":" + std::to_string(e.line()) + ":" + std::to_string(e.column()) +
                      ": " + e.what());
  }
}

ConfigModel ConfigLoader::loadFile(const std::string& path, double pipePatience) {
  return loadString(ConfigFile::read(path, pipePatience), path);
}

}  // namespace Waymark
