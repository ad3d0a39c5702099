// Follows the platform's IPv4 interface status table for the nexthop table
// manager: an interface that gains address status gets its own
// VixIpIntfStatus reactor, and one that loses it has its reactor torn down
// (which withdraws every address it held).
#pragma once

#include "policymap/IpStatus.h"

namespace Pbr {

class NexthopTableManager;

class VixIpStatus : public Ip::Status::NotifieeConst {
 public:
  explicit VixIpStatus(NexthopTableManager* manager) : nexthopTableManager_(manager) {}

  void onIpIntfStatus(const Velnet::IntfId& intfId) override;

 protected:
  // The first pass: every interface present when watching starts.
  void handleNotifier() override;

 private:
  NexthopTableManager* nexthopTableManager_;
};

}  // namespace Pbr
