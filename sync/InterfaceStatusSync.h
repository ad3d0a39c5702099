// Waymark::InterfaceStatusSync: brings the interface status entities
// (Ip::Status, Ip6::Status) in line with what the rtnetlink listener says an
// interface shows. The daemon wires the listener to it.
#pragma once

#include "framework/Ptr.h"
#include "kernel/NetlinkListener.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"

namespace Waymark {

class InterfaceStatusSync {
 public:
  InterfaceStatusSync(const Vix::Ptr<Ip::Status>& ipStatus, const Vix::Ptr<Ip6::Status>& ip6Status)
      : ipStatus_(ipStatus), ip6Status_(ip6Status) {}

  // A gone interface loses its entries; otherwise addresses that are no
  // longer shown go first, then the shown ones are set.
  void publish(const NetlinkListener::Interface& shown);

 private:
  Vix::Ptr<Ip::Status> ipStatus_;
  Vix::Ptr<Ip6::Status> ip6Status_;
};

}  // namespace Waymark
