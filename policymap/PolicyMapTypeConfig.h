// The PBR configuration as the policy framework reads it:
// PolicyMap::PolicyMapTypeConfig holds the policy maps in configuration order
// and which policy each input interface applies; PolicyMap::ClassMapTypeConfig
// holds the class maps (what each class matches). Pbr::Config is the mounted
// entity that holds both. Each change notifies the name it concerns.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "net/IntfId.h"
#include "policymap/ClassMapSubConfig.h"
#include "policymap/PolicyMapConfig.h"

namespace PolicyMap {

class PolicyMapTypeConfig : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<PolicyMapTypeConfig> {
   public:
    virtual void onPolicyMap(const std::string& /*name*/) {}
    virtual void onIntf(const Velnet::IntfId& /*intf*/) {}
  };

  // In configuration order.
  const std::vector<Vix::Ptr<PolicyMapConfig>>& policyMaps() const { return policyMaps_; }
  Vix::Ptr<PolicyMapConfig> policyMap(const std::string& name) const;
  // Installs or replaces `policy` (a new one goes last).
  void policyMapIs(const Vix::Ptr<PolicyMapConfig>& policy);
  void policyMapDel(const std::string& name);

  // The policy each interface applies to its input.
  const std::map<Velnet::IntfId, std::string>& intfs() const { return intfs_; }
  std::string intf(const Velnet::IntfId& i) const {
    const auto it = intfs_.find(i);
    return it == intfs_.end() ? "" : it->second;
  }
  void intfIs(const Velnet::IntfId& i, const std::string& policy);
  void intfDel(const Velnet::IntfId& i);

 private:
  std::vector<Vix::Ptr<PolicyMapConfig>> policyMaps_;
  std::map<Velnet::IntfId, std::string> intfs_;
};

class ClassMapTypeConfig : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<ClassMapTypeConfig> {
   public:
    virtual void onClassMap(const std::string& /*name*/) {}
  };

  Vix::Ptr<ClassMapSubConfig> classMap(const std::string& name) const {
    const auto it = classMaps_.find(name);
    return it == classMaps_.end() ? nullptr : it->second;
  }
  const std::map<std::string, Vix::Ptr<ClassMapSubConfig>>& classMaps() const { return classMaps_; }
  void classMapIs(const Vix::Ptr<ClassMapSubConfig>& c) {
    classMaps_[c->name()] = c;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onClassMap(c->name()); });
  }
  void classMapDel(const std::string& name) {
    if (classMaps_.erase(name) == 0) return;
    notify<NotifieeConst>([&](NotifieeConst& n) { n.onClassMap(name); });
  }

 private:
  std::map<std::string, Vix::Ptr<ClassMapSubConfig>> classMaps_;
};

}  // namespace PolicyMap

namespace Pbr {

class Config : public Vix::Entity {
 public:
  const Vix::Ptr<PolicyMap::PolicyMapTypeConfig>& policyMapTypeConfig() const {
    return policyMapTypeConfig_;
  }
  const Vix::Ptr<PolicyMap::ClassMapTypeConfig>& classMapTypeConfig() const {
    return classMapTypeConfig_;
  }

 private:
  const Vix::Ptr<PolicyMap::PolicyMapTypeConfig> policyMapTypeConfig_ =
      Vix::make<PolicyMap::PolicyMapTypeConfig>();
  const Vix::Ptr<PolicyMap::ClassMapTypeConfig> classMapTypeConfig_ =
      Vix::make<PolicyMap::ClassMapTypeConfig>();
};

}  // namespace Pbr
