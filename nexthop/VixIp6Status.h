// Follows the platform's IPv6 interface status table for the nexthop table
// manager, as VixIpStatus does for IPv4.
#pragma once

#include "policymap/Ip6Status.h"

namespace Pbr {

class NexthopTableManager;

class VixIp6Status : public Ip6::Status::NotifieeConst {
 public:
  explicit VixIp6Status(NexthopTableManager* manager) : nexthopTableManager_(manager) {}

  void onIntf(const Velnet::IntfId& intfId) override;

 protected:
  void handleNotifier() override;

 private:
  NexthopTableManager* nexthopTableManager_;
};

}  // namespace Pbr
