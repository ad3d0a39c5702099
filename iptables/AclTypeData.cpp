#include "iptables/AclTypeData.h"

#include "framework/ActivityManager.h"
#include "framework/Errors.h"
#include "framework/Trace.h"
#include "net/VrfName.h"

namespace Pbr::Iptables {

namespace {
const Vix::String8 kBatchStart = "*mangle\n";
const Vix::String8 kBatchEnd = "COMMIT\n";
}  // namespace

class AclTypeData::RuleProgrammingClock : public Vix::ClockNotifiee {
 public:
  explicit RuleProgrammingClock(AclTypeData* owner) : owner_(owner) {}
  void onTime() override { owner_->handleClock(); }

 private:
  AclTypeData* owner_;
};

AclTypeData::AclTypeData(PolicyMap::ClassMapMatchOption matchOption,
                         AclUtils::IptablesWriter* writer)
    : matchOption_(matchOption), writer_(writer) {
  handleInitialized();
}

AclTypeData::~AclTypeData() = default;

void AclTypeData::handleInitialized() {
  VIX_TRACE(8, "handleInitialized");
  const Acl::AclType type = matchOption_ == PolicyMap::matchIpv4   ? Acl::aclTypeIpv4
                            : matchOption_ == PolicyMap::matchIpv6 ? Acl::aclTypeIpv6
                                                                   : Acl::aclTypeOther;
  iptablesManagerIs(type);
  ruleProgrammingClock_ = Vix::make<RuleProgrammingClock>(this);
  ruleProgrammingClock_->notifierIs(Vix::activityManager().clock().get());
  initialized_ = true;
}

void AclTypeData::iptablesManagerIs(Acl::AclType type) {
  iptablesManager_ = Vix::make<AclUtils::IptablesManager>(type, writer_);
}

Vix::Ptr<AclData> AclTypeData::aclIs(
    const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData>& policyData) {
  if (auto existing = acl_.member(policyData->key())) {
    if (existing->policyData() == policyData) return existing;
    throw Vix::NameInUseError(
        "Reinstantiating the pointer interface where constructor parameter attribute _policyData "
        "has a different value of " +
        Vix::format("%p", static_cast<const void*>(policyData.get())) +
        " than the current value of " +
        Vix::format("%p", static_cast<const void*>(existing->policyData().get())) + " not allowed");
  }
  auto created = Vix::make<AclData>(policyData);
  acl_.newMember(created);
  return created;
}

void AclTypeData::iptablesOperationEnq(const Vix::String8& rule) {
  uint32_t index = nextIndex_;
  if (const IptablesOperation* tail = iptablesOperation_.tail();
      tail != nullptr && tail->index() >= index) {
    if (tail->index() == Vix::LinkQueue<IptablesOperation>::kMaxIndex) {
      throw Vix::RangeError("linkqueue index space full");
    }
    index = tail->index() + 1;
  }
  iptablesOperation_.doMemberIs(index, Vix::make<IptablesOperation>(index, rule));
  nextIndex_ = index;
}

Vix::String8 AclTypeData::iptablesOperationDeq() {
  const auto head = iptablesOperation_.dequeue();
  if (!head) return "";
  if (iptablesOperation_.empty()) headIndex_ = nextIndex_;
  ++headIndex_;
  return head->rule();
}

void AclTypeData::enqueueRule(const Vix::String8& rule) {
  VIX_TRACE(8, "enqueueRule " << rule);
  iptablesOperationEnq(rule);
  handleRuleProgrammingTimeLimit();
}

Vix::String8 AclTypeData::applyRules(const Vix::String8& rules) {
  const Ip::VrfName vrf("default");
  iptablesManager_->writeIptablesRules(kBatchStart + rules + kBatchEnd, vrf);
  return "";
}

void AclTypeData::ruleProgrammingTimeLimitIs(double limit) {
  if (limit == ruleProgrammingTimeLimit_) return;
  ruleProgrammingTimeLimit_ = limit;
  handleRuleProgrammingTimeLimit();
}

double AclTypeData::ruleProgrammingClockTimeMin() const {
  return ruleProgrammingClock_ ? ruleProgrammingClock_->timeMin() : Vix::kNever;
}

void AclTypeData::handleRuleProgrammingTimeLimit() {
  if (!ruleProgrammingClock_) return;
  const bool wake = !iptablesOperation_.empty() && ruleProgrammingTimeLimit_ != 0.0;
  ruleProgrammingClock_->timeMinIs(wake ? Vix::now() : Vix::kNever);
}

void AclTypeData::handleClock() {
  if (!initialized_) return;
  VIX_TRACE(8, "handleClock");
  const double start = Vix::now();
  const double deadline = start + ruleProgrammingTimeLimit_;
  double end = start;
  const Ip::VrfName vrf("default");
  while (end < deadline && !iptablesOperation_.empty()) {
    Vix::String8 batch = kBatchStart;
    for (uint32_t n = 0; rulesPerInvocation_ > n && !iptablesOperation_.empty(); ++n) {
      batch += iptablesOperationDeq();
      rulesProgrammedInc(1);
    }
    batch += kBatchEnd;
    iptablesInvokedInc(1);
    iptablesManager_->writeIptablesRules(batch, vrf);
    end = Vix::now();
  }
  const double elapsed = end - start;
  lastProgrammingTime_ = elapsed;
  totalProgrammingTime_ += elapsed;
  if (maxProgrammingTime_ < elapsed) maxProgrammingTime_ = elapsed;
  handleRuleProgrammingTimeLimit();
}

}  // namespace Pbr::Iptables
