// AclUtils::IptablesManager: the iptables side's access to the kernel for
// one address family. It renders an access-list rule into iptables match
// options (doGetRuleMatch) and writes iptables-restore text (a batch framed
// by "*mangle" and "COMMIT") without flushing the table: the text's own "-F"
// lines do the flushing. Every batch's outcome is kept for the status:
// batches written, batches failed, and the last error with the line the
// kernel refused. Only the VRF "default" is served.
//
// Writing goes through the IptablesWriter seam: the real writer runs
// iptables-restore / ip6tables-restore; tests record, the daemon's dry run
// prints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "platform/AclRuleConfig.h"
#include "platform/VrfName.h"

namespace Acl {
// 0 IPv4, 1 IPv6, 2 any other family (its writes are refused).
enum AclType : uint8_t { aclTypeIpv4 = 0, aclTypeIpv6 = 1, aclTypeOther = 2 };
}  // namespace Acl

namespace AclUtils {

// What doGetRuleMatch renders: 0 is the match options alone.
enum RuleMatchTarget : uint8_t { ruleMatchOnly = 0 };

struct IptablesWriteResult {
  bool ok = true;
  std::string error;  // what the tool said, when it failed
  // The text the tool's line numbers refer to, when that is not the whole
  // batch (a batch run as several restores fails in one of them).
  std::string failedText;
};

// Writes one framed batch: its outcome at once, or nothing when the outcome
// comes later (an asynchronous writer hands it to the manager's
// outcomeIs()).
class IptablesWriter {
 public:
  virtual ~IptablesWriter() = default;
  virtual std::optional<IptablesWriteResult> write(Acl::AclType type, const std::string& text) = 0;
};

// Pipes each batch into `iptables-restore --noflush -w` (IPv4) or
// `ip6tables-restore --noflush -w` (IPv6) and waits for it, at most
// `timeLimit` seconds.
//
// iptables 1.8.9 with the nf_tables backend crashes (SIGSEGV) on a batch that
// replaces ("-R") a rule created or replaced earlier in the same batch, which
// is what start-up produces: a policy's pairs are appended, then its classes'
// nexthops come up and the pairs are replaced. So a batch is run as
// consecutive restores, cut before any "-R" whose chain was created, flushed
// or grown, or whose rule was replaced, earlier in the same restore. Order and
// content are unchanged; a failing restore ends the batch.
class RestoreIptablesWriter : public IptablesWriter {
 public:
  explicit RestoreIptablesWriter(double timeLimit = 30.0) : timeLimit_(timeLimit) {}
  std::optional<IptablesWriteResult> write(Acl::AclType type, const std::string& text) override;
  // The same, always at once.
  IptablesWriteResult writeNow(Acl::AclType type, const std::string& text);
  // The restores a framed batch is run as, each framed again.
  static std::vector<std::string> restoreParts(const std::string& text);

 private:
  double timeLimit_;
};

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
