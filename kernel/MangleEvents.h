// Kernel::MangleEvents: the kernel's announcements of changes to the
// nf_tables tables that iptables-nft keeps the mangle tables in (family ip
// and ip6, table "mangle"): a rule, chain or the table added or removed,
// by waymark or by anyone else (an `iptables -t mangle -F`, a firewall's
// `nft flush ruleset`). Each change is told with the process that
// committed it, so that the daemon's drift check reads the tables back only
// after changes that its own iptables-restore did not make. Changes made
// through the legacy iptables back end are not announced; the drift check's
// periodic read-back covers those.
#pragma once

#include <string>
#include <vector>

#include "kernel/FileDescriptor.h"

namespace Kernel {

class MangleEvents {
 public:
  // False with `error` set when the socket cannot be opened.
  bool open(std::string* error);
  int fd() const { return fd_.get(); }
  // Reads every pending announcement: the process ids that committed
  // changes to a mangle table, 0 for changes whose process is unknown
  // (announcements were lost when the socket overran).
  std::vector<int> handle();

 private:
  Kernel::FileDescriptor fd_;
  // A mangle table's change was read whose commit has not been.
  bool pending_ = false;
};

}  // namespace Kernel
