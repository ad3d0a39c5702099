#include "plugin/PbrPolicyMapSm.h"

#include "framework/Errors.h"
#include "plugin/PbrClassMapSm.h"

namespace Pbr {

Vix::Ptr<PolicyMap::ClassMapSm> PolicyMapSm::createClassMapSm(
    const Vix::Ptr<PolicyMap::ClassMapConfig>& classMapConfig,
    const Vix::Ptr<const PolicyMap::ClassMapSubConfig>& classMapSubConfig,
    const Vix::Ptr<PolicyMap::ClassAction>& classAction) {
  auto sm = Vix::make<ClassMapSm>(globalCommonData(), commonData(), classMapConfig,
                                  classMapSubConfig, classAction, nexthopTableManager_);
  if (!sm) throw Vix::NullPtrError();
  return sm;
}

}  // namespace Pbr
