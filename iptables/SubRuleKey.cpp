#include "iptables/SubRuleKey.h"

#include "framework/Strep.h"

namespace Pbr::Iptables {

namespace {
constexpr std::string_view kType = "Pbr::Iptables::SubRuleKey";
}

std::string SubRuleKey::strep() const {
  return Vix::strepValue(kType, {Vix::strepAttr("aclRuleKey", aclRuleKey_.strep()),
                                 Vix::strepAttr("tcpFlag", std::to_string(tcpFlag_.value()))});
}

SubRuleKey SubRuleKey::fromStrep(std::string_view text) {
  Vix::StrepReader r(text);
  r.openValue(kType, "SubRuleKey");
  SubRuleKey key;
  while (const auto name = r.nextAttribute()) {
    if (*name == "aclRuleKey") {
      key.aclRuleKey_ = r.attribute(*name, [&] { return PolicyMap::AclRuleKey::readStrep(r); });
    } else if (*name == "tcpFlag") {
      key.tcpFlag_ = r.attribute(
          *name, [&] { return Acl::TcpFlag(static_cast<uint32_t>(r.readUnsigned(0xffffffffu))); });
    } else {
      r.noSuchAttribute(*name);
    }
  }
  r.closeValue();
  r.finish();
  return key;
}

}  // namespace Pbr::Iptables
