#include "sync/MangleRebuild.h"

#include <algorithm>
#include <cmath>

namespace Waymark {

namespace {

constexpr PolicyMap::ClassMapMatchOption kFamilies[] = {PolicyMap::matchIpv4, PolicyMap::matchIpv6};

}  // namespace

uint32_t MangleRebuild::batchesFailed(const Pbr::AclPlugin& plugin) {
  uint32_t failed = 0;
  for (const auto option : kFamilies) {
    if (const auto typeData = plugin.aclHelper()->aclTypeData(option)) {
      failed += typeData->iptablesManager()->batchesFailed();
    }
  }
  return failed;
}

std::string MangleRebuild::lastBatchError(const Pbr::AclPlugin& plugin) {
  std::string error;
  for (const auto option : kFamilies) {
    const auto typeData = plugin.aclHelper()->aclTypeData(option);
    if (typeData && !typeData->iptablesManager()->lastError().empty()) {
      error = typeData->iptablesManager()->lastError();
    }
  }
  return error;
}

void MangleRebuild::begin(Pbr::AclPlugin& plugin, const std::string& cause) {
  cause_ = cause;
  failedBefore_ = batchesFailed(plugin);
  kernel_.beginRebuild();
  plugin.pbrAclPluginSm()->rebuild();
  step_ = Step::programming;
}

void MangleRebuild::advance(const Pbr::AclPlugin& plugin, bool pluginIdle) {
  if (step_ == Step::programming) {
    if (!pluginIdle) return;
    kernel_.commitRebuild();
    step_ = Step::writing;
  }
  if (step_ == Step::none || kernel_.writing()) return;
  step_ = Step::none;
  ++rebuilds_;
  const std::string error = batchesFailed(plugin) != failedBefore_ ? lastBatchError(plugin) : "";
  kernel_.rebuildDone(error);
  event_(cause_, error.empty() ? "mangle tables rebuilt in place, one transaction per family"
                               : "mangle tables could not be rebuilt: " + error);
}

bool MangleRebuild::startLanded(Pbr::AclPlugin& plugin, double now) {
  if (batchesFailed(plugin) == start_.failedBefore) {
    if (!start_.error.empty()) {
      event_("start-retry",
             "the start's rules are written, at attempt " + std::to_string(start_.attempts + 1));
    }
    start_.error.clear();
    return true;
  }
  if (start_.due == Vix::kNever) {
    constexpr double kLongestWait = 30.0;
    const double wait =
        std::min(kLongestWait, std::ldexp(1.0, static_cast<int>(std::min(start_.attempts, 5u))));
    start_.error = lastBatchError(plugin);
    start_.due = now + wait;
    event_("start-retry", "the start's rules could not be written (" + start_.error +
                              "); not ready, writing them again in " +
                              std::to_string(static_cast<int>(wait)) + " s");
    return false;
  }
  if (now < start_.due) return false;
  ++start_.attempts;
  start_.due = Vix::kNever;
  start_.failedBefore = batchesFailed(plugin);
  // What the previous run wrote still steers meanwhile; the attempt
  // replaces waymark's part of the tables in place.
  begin(plugin, "start-retry");
  return false;
}

}  // namespace Waymark
