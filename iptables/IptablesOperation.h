// One element of a family's rule queue: one or more complete iptables-restore
// command lines, each ending in "\n", written together in one batch.
#pragma once

#include <cstdint>

#include "framework/LinkQueue.h"
#include "framework/String.h"

namespace Pbr::Iptables {

class IptablesOperation : public Vix::LinkQueueMember<uint32_t> {
 public:
  IptablesOperation(uint32_t index, Vix::String8 rule) : index_(index), rule_(std::move(rule)) {}
  uint32_t index() const { return index_; }
  const Vix::String8& rule() const { return rule_; }

 private:
  const uint32_t index_;
  const Vix::String8 rule_;
};

}  // namespace Pbr::Iptables
