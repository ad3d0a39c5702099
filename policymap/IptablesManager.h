// AclUtils::IptablesManager: the iptables side's access to the kernel for
// one address family. It renders an access-list rule into iptables match
// options (doGetRuleMatch) and writes iptables-restore text (a batch framed
// by "*mangle" and "COMMIT") without flushing the table: the text's own "-F"
// lines do the flushing. Every batch's outcome is kept for the status:
// batches written, batches failed, and the last error with the line the
// kernel refused. Only the VRF "default" is served.
//
// Writing goes through the IptablesWriter seam (kernel/): the real writer
// runs iptables-restore / ip6tables-restore; tests record, the daemon's dry
// run prints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "kernel/IptablesWriter.h"
#include "net/VrfName.h"
#include "policymap/AclRuleConfig.h"

namespace AclUtils {

// What doGetRuleMatch renders: 0 is the match options alone.
enum RuleMatchTarget : uint8_t { ruleMatchOnly = 0 };

class IptablesManager : public Vix::Entity {
 public:
  // REQUIRES: `writer` outlives the manager.
  IptablesManager(Acl::AclType type, IptablesWriter* writer) : type_(type), writer_(writer) {}

  Acl::AclType type() const { return type_; }

  // The rule's match options: "-p tcp -s 10.0.0.0/8 -m tcp --dport 80", the
  // sub-rule's TCP flags as "--tcp-flags F F", several ports through
  // multiport; "" for a rule that matches everything.
  std::string doGetRuleMatch(const Acl::AclRuleConfig& rule, RuleMatchTarget target) const;

  void writeIptablesRules(const std::string& text, const Ip::VrfName& vrf);
  // Counts the outcome of the batch `text`.
  void outcomeIs(const IptablesWriteResult& result, const std::string& text);

  uint32_t batchesWritten() const { return batchesWritten_; }
  uint32_t batchesFailed() const { return batchesFailed_; }
  const std::string& lastError() const { return lastError_; }

 private:
  void failed(const std::string& error, const std::string& text);

  const Acl::AclType type_;
  IptablesWriter* writer_;
  uint32_t batchesWritten_ = 0;
  uint32_t batchesFailed_ = 0;
  std::string lastError_;
};

// The Linux device of an interface; waymark names interfaces by their
// device names, so this is the name itself.
inline std::string intfDeviceName(const std::string& name) { return name; }

}  // namespace AclUtils
