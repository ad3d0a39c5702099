#include "plugin/NoActionSm.h"

#include "framework/Trace.h"
#include "plugin/ClassCommonData.h"

namespace Pbr {

std::string NoActionSm::traceForm() const {
  return "NoActionSm(" + policyCommonData()->key().strDesc() + ", " + classCommonData()->name() +
         ")";
}

void NoActionSm::handleInitialized() {
  VIX_TRACE(8, traceForm() << "::"
                           << "handleInitialized");
  PolicyMap::ActionSm::handleInitialized();
  passthroughIs(true);
}

void NoActionSm::cleanup() {
  VIX_TRACE(8, traceForm() << "::"
                           << "cleanup");
  passthroughIs(false);
}

void NoActionSm::passthroughIs(bool passthrough) {
  const auto data = Vix::ptrCast<ClassCommonData>(classCommonData());
  if (!data) return;
  const bool was = data->passthroughConfigured();
  data->passthroughConfiguredIs(passthrough);
  if (data->nexthopValue().isUnset() && !was) {
    data->updateAclActionsInc(1);
    return;
  }
  policyCommonData()->policyRewriteIs(true);
}

}  // namespace Pbr
