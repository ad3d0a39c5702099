// Waymark::ConfigGate: applies the configuration to the plug-in only while
// the nexthop loop has nothing pending. Used by the Daemon: prepare() before
// the plug-in starts, begin() once it has, requestApply() for every valid
// reload, applyWhenQuiet() after every loop turn.
//
// Why it waits:
// - At start, a policy created before its nexthops are programmed writes
//   every rule unmarked and then replaces each one when its nexthop comes
//   up; with nf_tables every replacing batch reads the whole chain back
//   first, which makes a large start many times slower than writing the
//   rules once. So the start applies the configuration without its
//   policies, references every nexthop the policies name, lets the loop
//   program them, and only then creates the policies, whose rules are then
//   written once, marked. Forwarding is the same meanwhile: before its
//   nexthop is programmed a class marks nothing.
// - On a reload, a class that takes a new reference on a programmed nexthop
//   cancels whatever the loop still has queued for it, including the
//   re-programming of a nexthop whose subnet went and came back, whose route
//   the kernel removed with the link. Applied while nothing is queued, a
//   reload cannot cancel anything.
//
// With nexthop programming switched off (a time limit of 0) nothing would
// ever become quiet, so the gate is open then.
//
// The gate also holds a reference on every health-checked nexthop that a
// class names: one withdrawn from every class for failing its checks keeps
// its table, route and rule, and coming back only rewrites its classes.
#pragma once

#include <set>
#include <vector>

#include "config/ConfigApplier.h"
#include "config/ConfigModel.h"
#include "framework/Ptr.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

class ConfigGate {
 public:
  explicit ConfigGate(ConfigApplier& applier) : applier_(applier) {}

  // Applies `model` without its policies and the interfaces that apply them.
  void prepare(const ConfigModel& model);
  // References every nexthop the policies of `model` name, in configuration
  // order, so that the nexthop loop allocates and programs them, and asks
  // for the whole configuration to be applied.
  // REQUIRES: prepare() was called and the plug-in has started.
  void begin(const Vix::Ptr<Pbr::NexthopTableManager>& manager, const ConfigModel& model);
  // Every nexthop the policies of `model` name, in configuration order.
  static std::vector<Velnet::IpGenAddr> nexthopsNamed(const ConfigModel& model);
  // Asks for the configuration to be applied (a reload).
  void requestApply() { applyRequested_ = true; }
  // When an application is asked for and the loop is quiet: applies `model`
  // without the `withdrawn` nexthops, and lets go of the start's references,
  // which the classes hold by then.
  void applyWhenQuiet(const ConfigModel& model, const std::set<Velnet::IpGenAddr>& withdrawn = {});
  // The nexthops a class of `model` names that have a health check.
  static std::set<Velnet::IpGenAddr> checkedNexthops(const ConfigModel& model);

  // True until the first whole configuration is applied.
  bool startingUp() const { return !started_; }
  // True while a configuration waits to be applied.
  bool waiting() const { return applyRequested_; }

 private:
  ConfigApplier& applier_;
  Vix::Ptr<Pbr::NexthopTableManager> manager_;
  std::vector<Velnet::IpGenAddr> nexthops_;
  std::set<Velnet::IpGenAddr> held_;
  bool applyRequested_ = false;
  bool started_ = false;
};

}  // namespace Waymark
