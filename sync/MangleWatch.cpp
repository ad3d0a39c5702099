#include "sync/MangleWatch.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace Waymark {

namespace {

constexpr size_t kNamed = 3;

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (size_t i = 0; i < items.size() && i < kNamed; ++i) out += (i == 0 ? "" : ", ") + items[i];
  if (items.size() > kNamed) out += " and " + std::to_string(items.size() - kNamed) + " more";
  return out;
}

}  // namespace

void MangleWatch::suspect(double now) {
  if (suspectedAt_ < 0) suspectedAt_ = now;
}

double MangleWatch::due() const {
  if (reading_.valid()) return polledAt_ + kPoll;
  const double periodic = checkedAt_ + period_;
  return suspectedAt_ < 0 ? periodic : std::min(periodic, suspectedAt_ + kGrace);
}

std::optional<std::string> MangleWatch::check(double now, uint64_t writes) {
  polledAt_ = now;
  if (!reading_.valid()) {
    readingSuspected_ = suspectedAt_ >= 0;
    suspectedAt_ = -1.0;
    checkedAt_ = now;
    writesBefore_ = writes;
    // A family with nothing written to compare with is not read.
    const bool known[2] = {written_(false).known(), written_(true).known()};
    reading_ = std::async(std::launch::async, [this, known] {
      const auto began = std::chrono::steady_clock::now();
      Saved saved;
      for (const bool v6 : {false, true}) {
        if (!known[v6]) continue;
        std::string error;
        saved.text[v6] = readback_(v6, &error);
        saved.ok[v6] = error.empty();
      }
      saved.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      return saved;
    });
    return std::nullopt;
  }
  if (reading_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return std::nullopt;
  const Saved saved = reading_.get();
  readingSuspected_ = false;
  period_ = std::max(kPeriod, 100.0 * saved.seconds);
  if (writes != writesBefore_) {
    suspect(now);
    return std::nullopt;
  }
  return compare(saved, writes);
}

std::string MangleWatch::compare(const Saved& saved, uint64_t writes) {
  std::string out;
  for (const bool v6 : {false, true}) {
    if (!saved.ok[v6]) continue;
    const std::string found = compareFamily(v6, saved.text[v6], writes);
    if (found.empty()) continue;
    out += (out.empty() ? "" : "; ") + std::string(v6 ? "IPv6: " : "IPv4: ") + found;
  }
  return out;
}

std::string MangleWatch::compareFamily(bool v6, const std::string& save, uint64_t writes) {
  const auto expected = written_(v6);
  // Nothing written yet, or a start that could not be followed: there is
  // nothing to compare with.
  if (!expected.known()) return "";
  const auto actual = Kernel::MangleReadback::own(save);
  const std::string shape = differences(expected, actual);
  if (!shape.empty()) return shape;
  const int f = v6 ? 1 : 0;
  if (referenceWrites_[f] != writes) {
    reference_[f] = actual;
    referenceWrites_[f] = writes;
    return "";
  }
  if (actual == reference_[f]) return "";
  std::vector<std::string> changed;
  for (const auto& [name, rules] : actual.chains) {
    const auto it = reference_[f].chains.find(name);
    if (it == reference_[f].chains.end() || it->second != rules) changed.push_back(name);
  }
  return "rules changed in " + joined(changed);
}

std::string MangleWatch::differences(const Kernel::MangleTransaction& expected,
                                     const Kernel::MangleReadback::OwnPart& actual) {
  const std::string jump = std::string("-j ") + Kernel::MangleReadback::kDispatchChain;
  const auto* prerouting = expected.rules("PREROUTING");
  const size_t jumps =
      prerouting == nullptr
          ? 0
          : static_cast<size_t>(std::count(prerouting->begin(), prerouting->end(), jump));
  const auto chains = expected.userChains();
  if (actual.chains.empty() && actual.jumps == 0 && (!chains.empty() || jumps != 0)) {
    return "waymark's chains and the dispatch jump are gone";
  }
  std::vector<std::string> found;
  if (actual.jumps != jumps) {
    found.push_back("jumps from PREROUTING to the dispatch chain: " + std::to_string(actual.jumps) +
                    " of " + std::to_string(jumps));
  }
  std::vector<std::string> missing;
  std::vector<std::string> resized;
  for (const auto& name : chains) {
    const auto it = actual.chains.find(name);
    if (it == actual.chains.end()) {
      missing.push_back(name);
    } else if (it->second.size() != expected.rules(name)->size()) {
      resized.push_back(name + " (" + std::to_string(it->second.size()) + " of " +
                        std::to_string(expected.rules(name)->size()) + " rules)");
    }
  }
  std::vector<std::string> extra;
  for (const auto& [name, rules] : actual.chains) {
    if (std::find(chains.begin(), chains.end(), name) == chains.end()) extra.push_back(name);
  }
  if (!missing.empty()) found.push_back("chain(s) missing: " + joined(missing));
  if (!resized.empty()) found.push_back("rules missing or added: " + joined(resized));
  if (!extra.empty()) found.push_back("chain(s) waymark did not make: " + joined(extra));
  std::string out;
  for (const auto& f : found) out += (out.empty() ? "" : "; ") + f;
  return out;
}

}  // namespace Waymark
