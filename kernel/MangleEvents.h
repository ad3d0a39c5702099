// Kernel::MangleEvents: the kernel's announcements of changes to the
// nf_tables tables that iptables-nft keeps the mangle tables in (family ip
// and ip6, table "mangle"): a rule, chain or the table added or removed,
// by waymark or by anyone else (an `iptables -t mangle -F`, a firewall's
// `nft flush ruleset`). The daemon's drift check reads the tables back
// after them. Changes made through the legacy iptables back end are not
// announced; the drift check's periodic read-back covers those.
#pragma once

#include <string>

#include "kernel/FileDescriptor.h"

namespace Kernel {

class MangleEvents {
 public:
  // False with `error` set when the socket cannot be opened.
  bool open(std::string* error);
  int fd() const { return fd_.get(); }
  // Reads every pending announcement: true when one concerned a mangle
  // table, or when some were lost (the socket overran).
  bool handle();

 private:
  Kernel::FileDescriptor fd_;
};

}  // namespace Kernel
