#include "policymap/PolicyMapSmKey.h"

#include "framework/String.h"

namespace PolicyMap {

namespace {
constexpr std::string_view kType = "PolicyMap::PolicyMapSmKey";
}

std::string PolicyMapSmKey::strep() const {
  return Vix::strepValue(kType, {Vix::strepAttr("name", Vix::quoted(name_)),
                                 Vix::strepAttr("instance", Vix::quoted(instance_))});
}

PolicyMapSmKey PolicyMapSmKey::readStrep(Vix::StrepReader& r) {
  r.openValue(kType, "PolicyMapSmKey");
  PolicyMapSmKey key;
  while (const auto name = r.nextAttribute()) {
    if (*name == "name") {
      key.name_ = r.attribute(*name, [&] { return r.readString(); });
    } else if (*name == "instance") {
      key.instance_ = r.attribute(*name, [&] { return r.readString(); });
    } else {
      r.noSuchAttribute(*name);
    }
  }
  r.closeValue();
  return key;
}

}  // namespace PolicyMap
