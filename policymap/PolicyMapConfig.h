// PolicyMap::PolicyMapConfig: one configured policy map: its classes in
// order (first match wins), each with its actions. A change of a policy is
// made by installing a new PolicyMapConfig; the framework compares it with
// the one it programmed.
#pragma once

#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/ClassAction.h"

namespace PolicyMap {

// One class as the policy uses it.
class ClassMapConfig : public Vix::Entity {
 public:
  ClassMapConfig(std::string name, const Vix::Ptr<ClassAction>& classAction)
      : name_(std::move(name)), classAction_(classAction) {}
  const std::string& name() const { return name_; }
  const Vix::Ptr<ClassAction>& classAction() const { return classAction_; }

 private:
  const std::string name_;
  const Vix::Ptr<ClassAction> classAction_;
};

class PolicyMapConfig : public Vix::Entity {
 public:
  PolicyMapConfig(std::string name, std::vector<Vix::Ptr<ClassMapConfig>> classes)
      : name_(std::move(name)), classes_(std::move(classes)) {}

  const std::string& name() const { return name_; }
  const std::string& key() const { return name_; }
  const std::vector<Vix::Ptr<ClassMapConfig>>& classes() const { return classes_; }

 private:
  const std::string name_;
  const std::vector<Vix::Ptr<ClassMapConfig>> classes_;
};

}  // namespace PolicyMap
