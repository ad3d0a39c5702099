// Pbr::ClassForwarding: what the iptables side reads of a class when it
// writes the class's rules: the nexthop they mark for (unset when there is
// none) and whether the class only lets traffic pass. The plug-in's class
// data provides it, so that the rules need nothing else of the plug-in.
#pragma once

#include "net/IpGenAddr.h"

namespace Pbr {

class ClassForwarding {
 public:
  virtual const Velnet::IpGenAddr& nexthopValue() const = 0;
  virtual bool passthroughConfigured() const = 0;

 protected:
  ~ClassForwarding() = default;
};

}  // namespace Pbr
