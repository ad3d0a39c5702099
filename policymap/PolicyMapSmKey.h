// PolicyMap::PolicyMapSmKey: the key of a policy map, two text components:
// its name and an instance qualifier (empty for waymark's policies).
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Hash.h"
#include "framework/Strep.h"

namespace PolicyMap {

class PolicyMapSmKey {
 public:
  PolicyMapSmKey() = default;
  explicit PolicyMapSmKey(std::string name, std::string instance = "")
      : name_(std::move(name)), instance_(std::move(instance)) {}

  const std::string& name() const { return name_; }
  const std::string& instance() const { return instance_; }
  // "name", or "name:instance" when there is an instance.
  std::string strDesc() const { return instance_.empty() ? name_ : name_ + ":" + instance_; }
  uint32_t hash() const { return Vix::fnv1a32(name_) ^ Vix::wangHash32(Vix::fnv1a32(instance_)); }

  std::string strep() const;
  static PolicyMapSmKey readStrep(Vix::StrepReader& reader);

  auto operator<=>(const PolicyMapSmKey&) const = default;

 private:
  std::string name_;
  std::string instance_;
};

inline std::ostream& operator<<(std::ostream& os, const PolicyMapSmKey& k) {
  return os << k.strDesc();
}

}  // namespace PolicyMap
