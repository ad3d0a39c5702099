// Pbr::ClassForwarding: what the iptables side reads of a class when it
// writes the class's rules: the nexthop they mark for (unset when there is
// none) and whether the class only lets traffic pass. The plug-in's class
// data derives from it, so that the rules need nothing else of the plug-in.
// It sits between the framework's class data and the plug-in's, rather than
// beside them, so that the rules reach it with a plain downcast: looking it
// up with dynamic_cast made writing a rule 8-14% slower.
#pragma once

#include "net/IpGenAddr.h"
#include "policymap/ClassMapSmCommonData.h"

namespace Pbr {

class ClassForwarding : public PolicyMap::ClassMapSmCommonData {
 public:
  using PolicyMap::ClassMapSmCommonData::ClassMapSmCommonData;
  virtual const Velnet::IpGenAddr& nexthopValue() const = 0;
  virtual bool passthroughConfigured() const = 0;
};

}  // namespace Pbr
