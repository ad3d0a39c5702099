// PolicyMap::PolicyMapSm: the state machine of one policy map. It creates a
// class state machine per class (in order, through the plug-in's factory),
// and drives the hardware helper:
//  - a policy is programmed in a family when one of its classes matches an
//    access list of that family: createPolicy, addRule for every sub-rule
//    (classes in order), commitPolicy;
//  - the interfaces that apply the policy fill both interface sets of the
//    common data; later changes call addIntfToPolicy / removeIntfFromPolicy;
//  - a class's updateAclActions request: beginUpdateActions, updateAction for
//    each of that class's sub-rules, endUpdateActions;
//  - a policy-wide rewrite request or a structural change: recreatePolicy and
//    every addRule again, then commitPolicy;
//  - removal: the classes are cleaned up, then deletePolicy per family.
// After each operation the policy's status is written per interface.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "policymap/ClassMapSm.h"
#include "policymap/GlobalCommonData.h"
#include "policymap/PolicyMapConfig.h"
#include "policymap/PolicyMapSmCommonData.h"
#include "policymap/PolicyMapSmKey.h"
#include "policymap/PolicyMapTypeConfig.h"
#include "policymap/PolicyMapTypeStatus.h"

namespace PolicyMap {

class PolicyMapSm : public Vix::Entity {
 public:
  PolicyMapSm(const Vix::Ptr<GlobalCommonData>& globalCommonData, const PolicyMapSmKey& key,
              const Vix::Ptr<PolicyMapConfig>& policyMapConfig,
              const Vix::Ptr<const ClassMapTypeConfig>& classMapTypeConfig,
              const Vix::Ptr<PolicyMapTypeStatus>& policyMapStatus);
  ~PolicyMapSm() override;

  const PolicyMapSmKey& key() const { return commonData_->key(); }
  const Vix::Ptr<GlobalCommonData>& globalCommonData() const { return globalCommonData_; }
  const Vix::Ptr<PolicyMapSmCommonData>& commonData() const { return commonData_; }
  const Vix::Ptr<PolicyMapConfig>& policyMapConfig() const { return policyMapConfig_; }
  const std::vector<Vix::Ptr<ClassMapSm>>& classes() const { return classes_; }
  bool programmed(ClassMapMatchOption option) const { return families_.count(option) != 0; }

  // Creates the classes and programs the policy.
  void start();
  // A new version of the policy's configuration: changed actions are handed
  // to their classes; anything else rebuilds the classes and the rules.
  void policyMapConfigIs(const Vix::Ptr<PolicyMapConfig>& config);
  // The classes' matches changed (class maps or access lists): rebuild.
  void restructure();
  // Applies the policy to an interface's input, or stops applying it.
  void intfIs(const Velnet::IntfId& intf, bool applied);
  // Cleans the classes up and deletes the policy everywhere.
  void remove();
  // The hardware lost the policy (its tables are being rebuilt): programs
  // it again as its start did, on top of the dispatch set-up.
  void reprogram();
  bool usesClassMap(const std::string& name) const;
  bool usesAccessList(const std::string& name) const;

  virtual Vix::Ptr<ClassMapSm> createClassMapSm(
      const Vix::Ptr<ClassMapConfig>& classMapConfig,
      const Vix::Ptr<const ClassMapSubConfig>& classMapSubConfig,
      const Vix::Ptr<ClassAction>& classAction) = 0;

 private:
  class ClassReactor;
  class CommonDataReactor;

  void createClasses();
  void dropClasses(std::vector<Vix::Ptr<ClassMapSm>> classes);
  // Programs every family the classes need and deletes the others; with
  // `rebuild`, families already programmed are recreated.
  void program(bool rebuild);
  // The framework's calls of program(), in family order; their results.
  std::string programFamilies(bool rebuild);
  void addRules(ClassMapMatchOption option);
  void updateActions(ClassMapSm& sm);
  void rewrite();
  void writeStatus(const std::string& result);

  const Vix::Ptr<GlobalCommonData> globalCommonData_;
  Vix::Ptr<PolicyMapConfig> policyMapConfig_;
  const Vix::Ptr<const ClassMapTypeConfig> classMapTypeConfig_;
  const Vix::Ptr<PolicyMapTypeStatus> policyMapStatus_;
  const Vix::Ptr<PolicyMapSmCommonData> commonData_;
  std::vector<Vix::Ptr<ClassMapSm>> classes_;
  std::vector<Vix::Ptr<ClassReactor>> classReactors_;
  Vix::Ptr<CommonDataReactor> commonDataReactor_;
  std::set<ClassMapMatchOption> families_;
  // While the policy is being (re)programmed, requests are not acted on: the
  // programming under way reads the state they ask for.
  bool busy_ = false;
};

}  // namespace PolicyMap
