// AclUtils::IptablesWriter: the seam through which each family's mangle
// batches reach the kernel. The iptables manager hands it framed
// iptables-restore text; the real writers run the restore tools (at once or
// on a thread of their own), tests record, the daemon's dry run prints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Acl {
// 0 IPv4, 1 IPv6, 2 any other family (its writes are refused).
enum AclType : uint8_t { aclTypeIpv4 = 0, aclTypeIpv6 = 1, aclTypeOther = 2 };
}  // namespace Acl

namespace AclUtils {

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

}  // namespace AclUtils
