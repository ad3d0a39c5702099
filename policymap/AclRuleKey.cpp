#include "policymap/AclRuleKey.h"

#include "framework/Hash.h"
#include "framework/String.h"

namespace PolicyMap {

namespace {
constexpr std::string_view kType = "PolicyMap::AclRuleKey";
}

std::string AclRuleKey::strDesc() const {
  return policyMapKey_.strDesc() + " " + familyName(matchOption_) + " class " + className_ +
         " acl " + aclName_ + " rule " + std::to_string(seqNo_);
}

uint32_t AclRuleKey::hash() const {
  uint32_t h = policyMapKey_.hash();
  h = Vix::wangHash32(h ^ matchOption_);
  h = Vix::wangHash32(h ^ Vix::fnv1a32(className_));
  h = Vix::wangHash32(h ^ Vix::fnv1a32(aclName_));
  return Vix::wangHash32(h ^ seqNo_);
}

std::string AclRuleKey::strep() const {
  return Vix::strepValue(kType, {Vix::strepAttr("policyMapKey", policyMapKey_.strep()),
                                 Vix::strepAttr("matchOption", std::to_string(matchOption_)),
                                 Vix::strepAttr("className", Vix::quoted(className_)),
                                 Vix::strepAttr("aclName", Vix::quoted(aclName_)),
                                 Vix::strepAttr("seqNo", std::to_string(seqNo_))});
}

AclRuleKey AclRuleKey::readStrep(Vix::StrepReader& r) {
  r.openValue(kType, "AclRuleKey");
  AclRuleKey key;
  while (const auto name = r.nextAttribute()) {
    if (*name == "policyMapKey") {
      key.policyMapKey_ = r.attribute(*name, [&] { return PolicyMapSmKey::readStrep(r); });
    } else if (*name == "matchOption") {
      key.matchOption_ = static_cast<ClassMapMatchOption>(
          r.attribute(*name, [&] { return r.readUnsigned(matchIpv6); }));
    } else if (*name == "className") {
      key.className_ = r.attribute(*name, [&] { return r.readString(); });
    } else if (*name == "aclName") {
      key.aclName_ = r.attribute(*name, [&] { return r.readString(); });
    } else if (*name == "seqNo") {
      key.seqNo_ =
          static_cast<uint32_t>(r.attribute(*name, [&] { return r.readUnsigned(0xffffffffu); }));
    } else {
      r.noSuchAttribute(*name);
    }
  }
  r.closeValue();
  return key;
}

AclRuleKey AclRuleKey::fromStrep(std::string_view text) {
  Vix::StrepReader r(text);
  AclRuleKey key = readStrep(r);
  r.finish();
  return key;
}

}  // namespace PolicyMap
