#include "kernel/RestoreIptablesWriter.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

#include "kernel/ChildProcess.h"

namespace AclUtils {

std::vector<std::string> RestoreIptablesWriter::restoreParts(const std::string& text) {
  static const std::string kStart = "*mangle\n";
  static const std::string kEnd = "COMMIT\n";
  std::vector<std::string> parts;
  std::string current;
  std::set<std::string> grown;
  std::set<std::pair<std::string, std::string>> replaced;
  auto cut = [&] {
    if (!current.empty()) parts.push_back(kStart + current + kEnd);
    current.clear();
    grown.clear();
    replaced.clear();
  };
  size_t start = 0;
  while (start < text.size()) {
    const size_t nl = text.find('\n', start);
    const std::string line =
        text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    start = nl == std::string::npos ? text.size() : nl + 1;
    if (line + "\n" == kStart || line + "\n" == kEnd || line.empty()) continue;
    std::istringstream words(line);
    std::string op;
    std::string chain;
    std::string position;
    words >> op >> chain >> position;
    if (op == "-R") {
      if (grown.count(chain) != 0 || replaced.count({chain, position}) != 0) cut();
      replaced.insert({chain, position});
    } else if (op == "-N" || op == "-F" || op == "-A" || op == "-I" || op == "-D" || op == "-X") {
      grown.insert(chain);
    }
    current += line + "\n";
  }
  cut();
  if (parts.empty()) parts.push_back(kStart + kEnd);
  return parts;
}

std::optional<IptablesWriteResult> RestoreIptablesWriter::write(Acl::AclType type,
                                                                const std::string& text) {
  return writeNow(type, text);
}

IptablesWriteResult RestoreIptablesWriter::writeNow(Acl::AclType type, const std::string& text) {
  const std::string tool = type == Acl::aclTypeIpv6 ? "ip6tables-restore" : "iptables-restore";
  for (const std::string& part : restoreParts(text)) {
    const Kernel::ChildResult r =
        Kernel::ChildProcess::run({tool, "--noflush", "-w"}, part, timeLimit_, [this](int pid) {
          const std::lock_guard<std::mutex> lock(mutex_);
          pids_.push_back(pid);
          if (pids_.size() > kRemembered) pids_.pop_front();
        });
    if (r.ok()) continue;
    std::string error = tool + " " + r.describe(timeLimit_);
    if (!r.output.empty()) error += ": " + r.output;
    return {false, error, part};
  }
  return {};
}

bool RestoreIptablesWriter::started(int pid) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::find(pids_.begin(), pids_.end(), pid) != pids_.end();
}

}  // namespace AclUtils
