// Ip::VrfName: the name of a VRF; at most 100 bytes.
#pragma once

#include <string>

#include "framework/Errors.h"

namespace Ip {

class VrfName {
 public:
  explicit VrfName(std::string name) : name_(std::move(name)) {
    if (name_.size() > 100) Vix::notAllowed("VrfName::bytes > 100");
  }
  const std::string& stringValue() const { return name_; }
  bool operator==(const VrfName&) const = default;

 private:
  std::string name_;
};

}  // namespace Ip
