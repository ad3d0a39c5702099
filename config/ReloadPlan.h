// Waymark::ReloadPlan: what a reload changes, by name, for its reply and its
// event: policies and classes added, changed and removed, interfaces bound,
// moved to another policy and unbound. The router builds one from the model
// in use and the one read; a pass over each, by name.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/ConfigModel.h"

namespace Waymark {

struct ReloadPlan {
  std::vector<std::string> policiesAdded, policiesChanged, policiesRemoved;
  // "policy/class"
  std::vector<std::string> classesAdded, classesChanged, classesRemoved;
  std::vector<std::string> interfacesBound, interfacesMoved, interfacesUnbound;

  static ReloadPlan between(const ConfigModel& before, const ConfigModel& after);
  nlohmann::json toJson() const;
  // One line, "nothing" when nothing changes.
  std::string text() const;
};

}  // namespace Waymark
