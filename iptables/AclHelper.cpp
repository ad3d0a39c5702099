#include "iptables/AclHelper.h"

#include <cstdlib>

#include "framework/Errors.h"
#include "framework/Trace.h"
#include "iptables/ClassForwarding.h"
#include "kernel/RestoreIptablesWriter.h"

namespace Pbr::Iptables {

namespace {

AclUtils::RestoreIptablesWriter restoreWriter;

std::string hex(uint32_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  char digits[8];
  size_t n = 0;
  do {
    digits[7 - n++] = kDigits[value & 0xf];
    value >>= 4;
  } while (value != 0);
  return std::string(digits + 8 - n, n);
}

// "-R CHAIN POSITION RULE\n", or "-A CHAIN RULE\n" when `position` is 0, built
// in one buffer: a policy's start composes two of these per sub-rule.
std::string ruleLine(const std::string& chain, uint32_t position, const std::string& rule) {
  const std::string number = position != 0 ? std::to_string(position) : "";
  std::string line;
  line.reserve(chain.size() + number.size() + rule.size() + 6);
  line.append(position != 0 ? "-R " : "-A ").append(chain).append(" ");
  if (position != 0) line.append(number).append(" ");
  return line.append(rule).append("\n");
}

}  // namespace

AclHelper::AclHelper(const Vix::Ptr<NexthopTableManager>& nexthopTableManager)
    : nexthopTableManager_(nexthopTableManager), iptablesWriter_(&restoreWriter) {
  updateActionSupportedIs(true);
  subRulesForL4PortsIs(false);
}

Vix::Ptr<AclHelper> aclHelperFactory(const Vix::Ptr<NexthopTableManager>& nexthopTableManager) {
  return Vix::make<AclHelper>(nexthopTableManager);
}

void AclHelper::iptablesWriterIs(AclUtils::IptablesWriter* writer) {
  iptablesWriter_ = writer != nullptr ? writer : &restoreWriter;
}

Vix::Ptr<AclTypeData> AclHelper::aclTypeDataIs(PolicyMap::ClassMapMatchOption option) {
  if (auto existing = aclTypeData_.member(option)) return existing;
  auto created = Vix::make<AclTypeData>(option, iptablesWriter_);
  aclTypeData_.newMember(created);
  return created;
}

void AclHelper::hwInit() {
  VIX_TRACE(8, "hwInit");
  // Flushes every chain of the mangle table and deletes every user chain, so
  // that chains left by an earlier run go, then recreates the dispatch chain.
  const Vix::String8 lines = Vix::String8("-F\n-X\n-N ") + kDispatchChain + "\n" + "-I " +
                             "PREROUTING" + " -j " + kDispatchChain + "\n";
  aclTypeDataIs(PolicyMap::matchIpv4)->applyRules(lines);
  aclTypeDataIs(PolicyMap::matchIpv6)->applyRules(lines);
  testMode = std::getenv("PBR_TEST") != nullptr;
}

Vix::String8 AclHelper::intfRuleForPolicy(AclData& aclData, const Velnet::IntfId& intf, bool add) {
  VIX_TRACE(8,
            "intfRuleForPolicy " << aclData.key().strDesc() << " intf " << intf << " add " << add);
  if (aclData.appliedIntf(intf) == add) return "";
  const std::string device = AclUtils::intfDeviceName(intf.stringValue());
  if (add) {
    aclData.appliedIntfIs(intf, true);
  } else {
    aclData.appliedIntfDel(intf);
  }
  return Vix::String8(add ? "-A " : "-D ") + kDispatchChain + " -i " + device + " -j " +
         aclData.chainName() + "\n";
}

Vix::String8 AclHelper::createPolicy(const PolicyData& policyData,
                                     PolicyMap::ClassMapMatchOption option) {
  VIX_TRACE(8, "createPolicy " << policyData->key().strDesc() << " " << familyName(option));
  const auto typeData = aclTypeDataIs(option);
  const auto acl = typeData->aclIs(policyData);
  typeData->enqueueRule("-N " + acl->chainName() + "\n");
  // Every interface gets its element, even an empty one for an interface
  // whose jump is already installed.
  const auto& intfs = option == PolicyMap::matchIpv4 ? policyData->intf() : policyData->intf6();
  for (auto it = intfs.begin(); !it.atEnd(); ++it) {
    typeData->enqueueRule(intfRuleForPolicy(*acl, it->key(), true));
  }
  return "";
}

Vix::String8 AclHelper::commitPolicy(const PolicyData& policyData,
                                     PolicyMap::ClassMapMatchOption option) {
  VIX_TRACE(8, "commitPolicy " << policyData->key().strDesc() << " " << familyName(option));
  return "";
}

Vix::String8 AclHelper::recreatePolicy(const PolicyData& policyData,
                                       PolicyMap::ClassMapMatchOption option) {
  VIX_TRACE(8, "recreatePolicy " << policyData->key().strDesc() << " " << familyName(option));
  const auto typeData = aclTypeData(option);
  VIX_ASSERT(typeData, "typeData");
  const auto acl = typeData->acl(policyData->key());
  if (!acl) return "";
  typeData->enqueueRule("-F " + acl->chainName() + "\n");
  acl->ruleIndexDelAll();
  acl->lastIndexIs(0);
  return "";
}

Vix::String8 AclHelper::deletePolicy(const PolicyData& policyData,
                                     PolicyMap::ClassMapMatchOption option) {
  VIX_TRACE(8, "deletePolicy " << policyData->key().strDesc() << " " << familyName(option));
  const auto typeData = aclTypeDataIs(option);
  const auto acl = typeData->aclDel(policyData->key());
  if (!acl) return "";
  Vix::String8 text;
  std::vector<Velnet::IntfId> applied;
  for (auto it = acl->appliedIntfs().begin(); !it.atEnd(); ++it) applied.push_back(it->key());
  for (const auto& intf : applied) text += intfRuleForPolicy(*acl, intf, false);
  text += "-F " + acl->chainName() + "\n";
  text += "-X " + acl->chainName() + "\n";
  acl->ruleIndexDelAll();
  typeData->enqueueRule(text);
  return "";
}

void AclHelper::forgetPolicy(const PolicyData& policyData, PolicyMap::ClassMapMatchOption option) {
  VIX_TRACE(8, "forgetPolicy " << policyData->key().strDesc() << " " << familyName(option));
  if (const auto typeData = aclTypeData(option)) typeData->aclDel(policyData->key());
}

Vix::String8 AclHelper::addIntfToPolicy(const PolicyData& policyData, const Velnet::IntfId& intf,
                                        PolicyMap::ClassMapMatchOption option) {
  return modifyIntfOnPolicy(policyData, intf, option, true);
}

Vix::String8 AclHelper::removeIntfFromPolicy(const PolicyData& policyData,
                                             const Velnet::IntfId& intf,
                                             PolicyMap::ClassMapMatchOption option) {
  return modifyIntfOnPolicy(policyData, intf, option, false);
}

Vix::String8 AclHelper::modifyIntfOnPolicy(const PolicyData& policyData, const Velnet::IntfId& intf,
                                           PolicyMap::ClassMapMatchOption option, bool add) {
  VIX_TRACE(8, "modifyIntfOnPolicy " << policyData->key().strDesc() << " " << familyName(option)
                                     << " intf " << intf << ", add=" << add);
  const auto typeData = aclTypeData(option);
  VIX_ASSERT(typeData, "typeData");
  const auto acl = typeData->acl(policyData->key());
  if (!acl) return "";
  const Vix::String8 line = intfRuleForPolicy(*acl, intf, add);
  if (!line.empty()) typeData->enqueueRule(line);
  return "";
}

Vix::String8 AclHelper::addRule(const PolicyMap::AclRuleKey& aclRuleKey,
                                const PolicyMap::SubRuleData& subRuleData,
                                const PolicyData& policyData, const ClassData& classData) {
  VIX_TRACE(8, "addRule " << aclRuleKey.strDesc());
  // Every class reaches the rules through the plug-in's class factory, so its
  // data is a ClassForwarding; the sanitized build checks the downcast.
  VIX_ASSERT(classData, "classData");
  const auto* forwarding = static_cast<const ClassForwarding*>(classData.get());
  const Velnet::IpGenAddr nexthop = forwarding->nexthopValue();
  const auto typeData = aclTypeData(aclRuleKey.matchOption());
  VIX_ASSERT(typeData, "typeData");
  const auto acl = typeData->acl(aclRuleKey.policyMapKey());
  VIX_ASSERT(acl, "data");
  (void)policyData;
  const uint32_t fwmark = nexthopTableManager_->fwmark(nexthop);
  const bool programmed = nexthopTableManager_->programmed(nexthop);

  Acl::AclRuleConfig rule = aclRuleKey.matchOption() == PolicyMap::matchIpv4
                                ? classData->getIpRule(aclRuleKey)
                                : classData->getIp6Rule(aclRuleKey);
  rule.tcpFlag = Acl::TcpFlag(subRuleData.tcpFlag);
  const std::string match =
      typeData->iptablesManager()->doGetRuleMatch(rule, AclUtils::ruleMatchOnly);
  // While the nexthop is not programmed the first rule only counts: packets
  // leave the chain unmarked and follow normal routing, and later classes
  // still do not see them.
  const std::string rules[2] = {programmed ? match + " -j MARK --set-mark 0x" + hex(fwmark) : match,
                                match + " -j ACCEPT"};

  const SubRuleKey key(aclRuleKey, subRuleData.tcpFlag);
  const uint32_t position = acl->ruleIndex(key);
  if (position != 0) {
    for (uint32_t i = 0; i < 2; ++i) {
      typeData->enqueueRule(ruleLine(acl->chainName(), position + i, rules[i]));
    }
    return "";
  }
  acl->lastIndexInc(1);
  acl->ruleIndexIs(key, acl->lastIndex());
  acl->lastIndexInc(1);
  for (const auto& r : rules) typeData->enqueueRule(ruleLine(acl->chainName(), 0, r));
  return "";
}

Vix::String8 AclHelper::updateAction(const PolicyMap::AclRuleKey& aclRuleKey,
                                     const PolicyMap::SubRuleData& subRuleData,
                                     const PolicyData& policyData, const ClassData& classData) {
  VIX_TRACE(8, "updateAction " << aclRuleKey.strDesc());
  return addRule(aclRuleKey, subRuleData, policyData, classData);
}

Vix::String8 AclHelper::beginUpdateActions(const PolicyData&, const ClassData&) { return ""; }

Vix::String8 AclHelper::endUpdateActions(const PolicyData&, const ClassData&) { return ""; }

}  // namespace Pbr::Iptables
