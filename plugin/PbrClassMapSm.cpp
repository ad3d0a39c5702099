#include "plugin/PbrClassMapSm.h"

#include "framework/Errors.h"
#include "framework/Trace.h"
#include "plugin/ClassCommonData.h"
#include "plugin/NexthopActionSm.h"
#include "plugin/NoActionSm.h"

namespace Pbr {

namespace {

template <class Sm>
Vix::Ptr<PolicyMap::ActionSm> actionSm(const Vix::Ptr<PolicyMap::GlobalCommonData>& g,
                                       const Vix::Ptr<PolicyMap::PolicyMapSmCommonData>& p,
                                       const Vix::Ptr<PolicyMap::ClassMapSmCommonData>& c,
                                       const Vix::Ptr<PolicyMap::Action>& a) {
  auto sm = Vix::make<Sm>(g, p, c, a);
  if (!sm) throw Vix::NullPtrError();
  return sm;
}

}  // namespace

std::string ClassMapSm::traceForm() const {
  return "ClassMapSm(" + policyCommonData()->key().strDesc() + ", " + name() + ")";
}

Vix::Ptr<PolicyMap::ActionSm> ClassMapSm::createActionSm(PolicyMap::ActionType actionType) {
  VIX_TRACE(8, traceForm() << "::"
                           << "createActionSm"
                           << ": " << static_cast<int>(actionType));
  if (actionType != PolicyMap::actionPbrFwd) return nullptr;
  const auto action = classAction() ? classAction()->action(actionType) : nullptr;
  if (!action) return nullptr;
  switch (action->pbrFwdKind()) {
    case PolicyMap::pbrFwdNone:
      return actionSm<NoActionSm>(globalCommonData(), policyCommonData(), commonData(), action);
    case PolicyMap::pbrFwdNexthops:
      return actionSm<NexthopActionSm>(globalCommonData(), policyCommonData(), commonData(),
                                       action);
    case PolicyMap::pbrFwdNexthopGroup:
      return actionSm<NexthopGroupActionSm>(globalCommonData(), policyCommonData(), commonData(),
                                            action);
    default:
      return nullptr;
  }
}

Vix::Ptr<PolicyMap::ClassMapSmCommonData> ClassMapSm::createCommonData() {
  auto data =
      Vix::make<ClassCommonData>(name(), classMapSubConfig(), globalCommonData()->aclConfig);
  if (!data) throw Vix::NullPtrError();
  // The selector starts working once the class has its data.
  data->masterNexthopSmIs(nexthopTableManager_)->activeIs(true);
  return data;
}

void ClassMapSm::cleanup() {
  VIX_TRACE(8, traceForm() << "::"
                           << "cleanup");
  if (const auto data = Vix::ptrCast<ClassCommonData>(commonData())) {
    if (const auto selector = data->masterNexthopSmDel()) {
      // The class's nexthops are released while the selector is still active.
      selector->cleanup();
      selector->activeIs(false);
    }
  }
  PolicyMap::ClassMapSm::cleanup();
}

}  // namespace Pbr
