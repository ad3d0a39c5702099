// Pbr::ClassCommonData: the plug-in's data for one class of a policy: the
// nexthop its rules mark for (nexthopValue, unset when there is none) and
// whether it only lets traffic pass (passthroughConfigured). The iptables side
// reads both when it writes the class's rules; the class's nexthop selector
// keeps nexthopValue current.
#pragma once

#include <string>

#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "platform/AclConfig.h"
#include "platform/ClassMapSmCommonData.h"
#include "platform/ClassMapSubConfig.h"
#include "platform/IpGenAddr.h"

namespace Pbr {

class ClassCommonData : public PolicyMap::ClassMapSmCommonData {
 public:
  class NotifieeConst : public Vix::Notifiee<ClassCommonData> {
   public:
    virtual void onNexthopValue() {}
    virtual void onPassthroughConfigured() {}
  };

  ClassCommonData(const std::string& name,
                  const Vix::Ptr<const PolicyMap::ClassMapSubConfig>& classMap,
                  const Vix::Ptr<const Acl::Config>& aclConfig)
      : PolicyMap::ClassMapSmCommonData(name, classMap, aclConfig) {}

  const Velnet::IpGenAddr& nexthopValue() const { return nexthopValue_; }
  void nexthopValueIs(const Velnet::IpGenAddr& nexthop) {
    if (nexthop == nexthopValue_) return;
    nexthopValue_ = nexthop;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onNexthopValue(); });
  }

  bool passthroughConfigured() const { return passthroughConfigured_; }
  void passthroughConfiguredIs(bool passthrough) {
    if (passthrough == passthroughConfigured_) return;
    passthroughConfigured_ = passthrough;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onPassthroughConfigured(); });
  }

 private:
  Velnet::IpGenAddr nexthopValue_;
  bool passthroughConfigured_ = false;
};

}  // namespace Pbr
