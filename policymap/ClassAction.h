// The actions of one class of a policy (PolicyMap::ClassAction), each of a
// PolicyMap::ActionType. The PBR forwarding action (type 4) carries a kind
// (0 no forwarding target, 2 a set of nexthops, 3 a nexthop group) and its
// Pbr::PbrFwdAction.
#pragma once

#include <cstdint>
#include <map>

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/PbrFwdAction.h"

namespace PolicyMap {

enum ActionType : uint8_t {
  actionSetDscp = 1,
  actionSetTc = 2,
  actionDrop = 3,
  actionPbrFwd = 4,
};

enum PbrFwdKind : uint8_t {
  pbrFwdNone = 0,       // no forwarding target: the class lets traffic pass
  pbrFwdRecursive = 1,  // not used by the plug-in
  pbrFwdNexthops = 2,
  pbrFwdNexthopGroup = 3,
};

class Action : public Vix::Entity {
 public:
  Action(ActionType type, uint8_t pbrFwdKind, const Vix::Ptr<Pbr::PbrFwdAction>& pbrFwdAction)
      : type_(type), pbrFwdKind_(pbrFwdKind), pbrFwdAction_(pbrFwdAction) {}

  ActionType type() const { return type_; }
  uint8_t pbrFwdKind() const { return pbrFwdKind_; }
  // Null when the action carries no forwarding data.
  const Vix::Ptr<Pbr::PbrFwdAction>& pbrFwdAction() const { return pbrFwdAction_; }

 private:
  const ActionType type_;
  const uint8_t pbrFwdKind_;
  const Vix::Ptr<Pbr::PbrFwdAction> pbrFwdAction_;
};

class ClassAction : public Vix::Entity {
 public:
  using Actions = std::map<ActionType, Vix::Ptr<Action>>;

  const Actions& actions() const { return actions_; }
  Vix::Ptr<Action> action(ActionType type) const {
    const auto it = actions_.find(type);
    return it == actions_.end() ? nullptr : it->second;
  }
  void actionIs(const Vix::Ptr<Action>& a) { actions_[a->type()] = a; }

 private:
  Actions actions_;
};

}  // namespace PolicyMap
