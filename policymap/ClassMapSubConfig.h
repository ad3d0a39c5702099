// PolicyMap::ClassMapSubConfig: what a class matches: the access lists whose
// rules select its traffic, in configuration order (a packet matching any of
// them is in the class).
#pragma once

#include <string>
#include <vector>

#include "framework/Entity.h"

namespace PolicyMap {

class ClassMapSubConfig : public Vix::Entity {
 public:
  ClassMapSubConfig(std::string name, std::vector<std::string> accessLists)
      : name_(std::move(name)), accessLists_(std::move(accessLists)) {}

  const std::string& name() const { return name_; }
  const std::string& key() const { return name_; }
  const std::vector<std::string>& accessLists() const { return accessLists_; }

 private:
  const std::string name_;
  const std::vector<std::string> accessLists_;
};

}  // namespace PolicyMap
