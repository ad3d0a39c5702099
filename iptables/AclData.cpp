#include "iptables/AclData.h"

namespace Pbr::Iptables {

namespace {
// Shared by every policy of both families, never reset, never reused.
int32_t chainNameCounter = 0;
}  // namespace

AclData::AclData(const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData>& policyData)
    : policyData_(policyData), chainName_(createChainName()) {}

Vix::String8 AclData::createChainName() const {
  chainNameCounter = static_cast<int32_t>(static_cast<uint32_t>(chainNameCounter) + 1);
  const PolicyMap::PolicyMapSmKey& k = policyData_->key();
  Vix::String8 name = "PBR_" + std::to_string(chainNameCounter) + "_" + k.name();
  if (!k.instance().empty()) name += "_" + k.instance();
  if (name.size() > kMaxChainNameLength) name.resize(kMaxChainNameLength);
  return name;
}

}  // namespace Pbr::Iptables
