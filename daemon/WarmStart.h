// Waymark::WarmStart: waymarkd's start in two steps. A policy created before
// its nexthops are programmed writes every rule unmarked and then replaces
// each one when its nexthop comes up; with nf_tables every replacing batch
// reads the whole chain back first, which makes a large start-up many times
// slower than writing the rules once. So the daemon first applies the
// configuration without its policies and references every nexthop the
// policies name, lets the nexthop loop program them, and only then creates
// the policies, whose rules are then written once, marked. Forwarding is
// the same meanwhile: before its nexthop is programmed a class marks nothing.
//
// Used by the Daemon: prepare() before the plug-in starts, begin() once it
// has, finish() after every loop turn and before a reload.
#pragma once

#include <vector>

#include "daemon/ConfigApplier.h"
#include "daemon/ConfigModel.h"
#include "framework/Ptr.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

class WarmStart {
 public:
  explicit WarmStart(ConfigApplier& applier) : applier_(applier) {}

  // Applies `model` without its policies and the interfaces that apply them.
  void prepare(const ConfigModel& model);
  // References every nexthop the policies of `model` name, in configuration
  // order, so that the nexthop loop allocates and programs them.
  // REQUIRES: prepare() was called and the plug-in has started.
  void begin(const Vix::Ptr<Pbr::NexthopTableManager>& manager, const ConfigModel& model);
  // Once no nexthop is pending (or programming is switched off), or at once
  // when `now`: applies `model` in full and lets go of the references, which
  // the classes hold by then. Does nothing when not warming.
  void finish(const ConfigModel& model, bool now);
  bool warming() const { return manager_ != nullptr; }

 private:
  ConfigApplier& applier_;
  Vix::Ptr<Pbr::NexthopTableManager> manager_;
  std::vector<Velnet::IpGenAddr> nexthops_;
};

}  // namespace Waymark
