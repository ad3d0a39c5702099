// The router core's kernel for tests: routing commands and iptables batches
// are recorded (RecordingCommandRunner, RecordingIptablesWriter) whichever
// executor is chosen, or, once realTools() is called, run by the real `ip`
// and iptables-restore. It counts the start's steps and the catch-ups that
// idle requests ask for, can keep the writer busy for a while, as the
// asynchronous writer is while a transaction is on its way, answers rule
// counters the test sets, and describes the route lookups it is asked for.
// A mangle drift the test sets is found at the next comparison; the
// rebuild's steps are counted. The state journal records, or fails as the
// test says.
#pragma once

#include <atomic>
#include <set>
#include <string>
#include <utility>

#include "kernel/RestoreIptablesWriter.h"
#include "sync/RouterKernel.h"
#include "tests/support/RecordingCommandRunner.h"
#include "tests/support/RecordingIptablesWriter.h"
#include "tests/support/RecordingProbeSender.h"

namespace waymark::test {

class FakeRouterKernel : public Waymark::RouterKernel {
 public:
  Pbr::CommandRunner& runner(Waymark::CommandExecutor executor) override {
    executors.push_back(executor);
    return real_ ? static_cast<Pbr::CommandRunner&>(system_) : recordingRunner;
  }
  AclUtils::IptablesWriter& writer() override {
    return real_ ? static_cast<AclUtils::IptablesWriter&>(restore_) : recordingWriter;
  }
  Kernel::ProbeSender& prober() override { return probes; }
  void nexthopsProgrammed() override { ++nexthopsProgrammedCalls; }
  bool writing() const override { return busy; }
  void rulesWritten(Pbr::NexthopTableManager&) override { ++rulesWrittenCalls; }
  void catchUp(Pbr::AclPlugin&) override { ++catchUps; }
  // Read on the router's background thread.
  Kernel::MangleReadback::RuleCounters ruleCounters(bool v6) override {
    ++counterReads;
    return counters[v6];
  }
  void suspectDrift() override { ++driftSuspicions; }
  double mangleCheckDue() const override { return mangleDrift.empty() ? 1e300 : 0.0; }
  bool mangleSuspected() const override { return !mangleDrift.empty(); }
  bool mangleDrifted(double, std::vector<std::string>& out) override {
    if (mangleDrift.empty()) return false;
    out.push_back(std::exchange(mangleDrift, ""));
    return true;
  }
  void beginRebuild() override { ++rebuildsBegun; }
  void commitRebuild() override { ++rebuildsCommitted; }
  void rebuildDone(const std::string& error) override { rebuildErrors.push_back(error); }
  std::string cannotRecord() override { return recordError; }
  bool unrecorded(const Velnet::IpGenAddr& nexthop) const override {
    return unrecordedNexthops.count(nexthop) != 0;
  }
  std::string routeLookup(const Velnet::IpGenAddr& src, const Velnet::IpGenAddr& dst,
                          const std::string& in, uint32_t mark) override {
    return "lookup " + dst.stringValue() + " from " + src.stringValue() + " iif " + in + " mark " +
           std::to_string(mark);
  }

  // From now on the real tools do the work.
  void realTools() { real_ = true; }

  RecordingCommandRunner recordingRunner;
  RecordingIptablesWriter recordingWriter;
  RecordingProbeSender probes;
  std::vector<Waymark::CommandExecutor> executors;  // each runner() asked for
  bool busy = false;
  Kernel::MangleReadback::RuleCounters counters[2];
  std::atomic<int> counterReads = 0;  // what each family's read-back says
  int nexthopsProgrammedCalls = 0;
  int rulesWrittenCalls = 0;
  int catchUps = 0;
  std::string mangleDrift;  // what the next comparison finds
  int driftSuspicions = 0;
  int rebuildsBegun = 0;
  int rebuildsCommitted = 0;
  std::vector<std::string> rebuildErrors;  // one per rebuild written
  std::string recordError;                 // why the journal cannot record
  std::set<Velnet::IpGenAddr> unrecordedNexthops;

 private:
  bool real_ = false;
  Pbr::SystemCommandRunner system_;
  AclUtils::RestoreIptablesWriter restore_;
};

}  // namespace waymark::test
