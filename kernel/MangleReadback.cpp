#include "kernel/MangleReadback.h"

#include <cstdlib>
#include <sstream>

#include "kernel/ChildProcess.h"

namespace Kernel {

namespace {

const std::string kDispatch = MangleReadback::kDispatchChain;

bool ours(const std::string& chain) { return chain == kDispatch || chain.rfind("PBR_", 0) == 0; }

bool isJump(const std::string& line) { return line == "-A PREROUTING -j " + kDispatch; }

// One line of iptables-save's output: a chain it declares (":NAME ..."),
// or the chain of a rule ("-A NAME ...").
struct SavedLine {
  std::string text;
  std::string chainDeclared;
  std::string ruleChain;
};

template <typename Visit>
void forEachLine(const std::string& save, const Visit& visit) {
  std::istringstream in(save);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string first;
    std::string chain;
    words >> first >> chain;
    SavedLine l{line, "", ""};
    if (first.size() > 1 && first[0] == ':') l.chainDeclared = first.substr(1);
    if (first == "-A") l.ruleChain = chain;
    visit(l);
  }
}

bool builtIn(const std::string& chain) {
  return chain == "PREROUTING" || chain == "INPUT" || chain == "FORWARD" || chain == "OUTPUT" ||
         chain == "POSTROUTING";
}

}  // namespace

std::string MangleReadback::save(bool v6, double timeLimit, std::string* error, bool counters) {
  const char* tool = v6 ? "ip6tables-save" : "iptables-save";
  std::vector<std::string> argv = {tool, "-t", "mangle"};
  if (counters) argv.push_back("-c");
  const auto r = Kernel::ChildProcess::run(argv, "", timeLimit);
  if (!r.ok()) *error = std::string(tool) + " " + r.describe(timeLimit) + ": " + r.output;
  return r.output;
}

std::vector<std::string> MangleReadback::foreign(const std::string& save) {
  std::vector<std::string> out;
  forEachLine(save, [&](const SavedLine& l) {
    if (!l.chainDeclared.empty()) {
      if (!builtIn(l.chainDeclared) && !ours(l.chainDeclared))
        out.push_back("-N " + l.chainDeclared);
    } else if (!l.ruleChain.empty() && !ours(l.ruleChain) && !isJump(l.text)) {
      out.push_back(l.text);
    }
  });
  return out;
}

MangleReadback::OwnPart MangleReadback::own(const std::string& save) {
  OwnPart out;
  forEachLine(save, [&](const SavedLine& l) {
    if (ours(l.chainDeclared)) {
      out.chains[l.chainDeclared];
    } else if (ours(l.ruleChain)) {
      out.chains[l.ruleChain].push_back(l.text.substr(3 + l.ruleChain.size()));
    } else if (isJump(l.text)) {
      ++out.jumps;
    }
  });
  return out;
}

std::set<uint32_t> MangleReadback::marksSet(const std::string& save) {
  std::set<uint32_t> out;
  for (const auto& [chain, rules] : own(save).chains) {
    for (const auto& rule : rules) {
      std::istringstream words(rule);
      for (std::string word; words >> word;) {
        if (word != "--set-xmark" && word != "--set-mark") continue;
        std::string value;
        words >> value;
        char* end = nullptr;
        const unsigned long mark = std::strtoul(value.c_str(), &end, 0);
        if (end != value.c_str() && (*end == '\0' || *end == '/') && mark != 0 &&
            mark <= UINT32_MAX) {
          out.insert(static_cast<uint32_t>(mark));
        }
      }
    }
  }
  return out;
}

std::set<std::string> MangleReadback::chains(const std::string& save) {
  std::set<std::string> out;
  std::istringstream in(save);
  for (std::string line; std::getline(in, line);) {
    if (line.size() < 2 || line[0] != ':') continue;
    const std::string name = line.substr(1, line.find(' ') - 1);
    if (!builtIn(name)) out.insert(name);
  }
  return out;
}

MangleReadback::RuleCounters MangleReadback::ruleCounters(const std::string& save) {
  RuleCounters out;
  std::istringstream in(save);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] != '[') continue;
    Counter c;
    char open = 0;
    char colon = 0;
    char close = 0;
    std::string op;
    std::string chain;
    std::istringstream words(line);
    words >> open >> c.packets >> colon >> c.bytes >> close >> op >> chain;
    if (!words || colon != ':' || close != ']' || op != "-A") continue;
    out[chain].push_back(c);
  }
  return out;
}

std::vector<std::string> MangleReadback::removal(const std::string& save) {
  std::vector<std::string> out;
  if (save.find("\n-A PREROUTING -j " + kDispatch + "\n") != std::string::npos) {
    out.push_back("-D PREROUTING -j " + kDispatch);
  }
  std::vector<std::string> mine;
  for (const auto& chain : chains(save)) {
    if (ours(chain)) mine.push_back(chain);
  }
  for (const auto& chain : mine) out.push_back("-F " + chain);
  for (const auto& chain : mine) out.push_back("-X " + chain);
  return out;
}

}  // namespace Kernel
