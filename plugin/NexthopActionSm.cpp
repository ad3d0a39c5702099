#include "plugin/NexthopActionSm.h"

#include "framework/Trace.h"
#include "plugin/ClassCommonData.h"

namespace Pbr {

std::string NexthopActionSm::traceForm() const {
  return std::string(kind()) + "(" + policyCommonData()->key().strDesc() + ", " +
         classCommonData()->name() + ")";
}

MasterNexthopSm* NexthopActionSm::selector() const {
  const auto data = Vix::ptrCast<ClassCommonData>(classCommonData());
  return data ? data->masterNexthopSm().get() : nullptr;
}

void NexthopActionSm::handleAction() {
  VIX_TRACE(8, traceForm() << "::"
                           << "handleAction");
  MasterNexthopSm* s = selector();
  if (s == nullptr) return;
  give(*s, action() ? Vix::Ptr<const PbrFwdAction>(action()->pbrFwdAction()) : nullptr);
}

void NexthopActionSm::cleanup() {
  VIX_TRACE(8, traceForm() << "::"
                           << "cleanup");
  if (MasterNexthopSm* s = selector()) give(*s, nullptr);
}

void NexthopActionSm::give(MasterNexthopSm& s, const Vix::Ptr<const PbrFwdAction>& action) {
  s.nexthopIs(action);
}

void NexthopGroupActionSm::give(MasterNexthopSm& s, const Vix::Ptr<const PbrFwdAction>& action) {
  s.nexthopGroupIs(action);
}

}  // namespace Pbr
