// Waymark::NetlinkListener: keeps the interface status entities (Ip::Status,
// Ip6::Status) equal to the kernel's links and addresses, from an initial
// dump and then RTM_NEWLINK/DELLINK/NEWADDR/DELADDR events.
//
// Rules: an interface is named by its device name; its IPv4 primary is its
// first address without IFA_F_SECONDARY, every other IPv4 address is an
// active secondary; IPv6 addresses count except tentative or DAD-failed ones,
// link-local included; addresses count only while the link is up and running
// (a link that goes down publishes 0.0.0.0/0 and nothing else); a deleted
// link removes its entries. When the kernel drops events (ENOBUFS) the
// listener dumps again and publishes the difference.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "framework/Ptr.h"
#include "platform/Ip6AddrWithMask.h"
#include "platform/Ip6Status.h"
#include "platform/IpAddrWithMask.h"
#include "platform/IpStatus.h"

namespace Waymark {

class NetlinkListener {
 public:
  NetlinkListener(const Vix::Ptr<Ip::Status>& ipStatus, const Vix::Ptr<Ip6::Status>& ip6Status);
  ~NetlinkListener();
  NetlinkListener(const NetlinkListener&) = delete;
  NetlinkListener& operator=(const NetlinkListener&) = delete;

  // Subscribes to events and dumps the current state; false with `error` set
  // when netlink cannot be used.
  bool open(std::string* error);
  // The socket to wait on for events.
  int fd() const { return eventFd_; }
  // Reads and applies every pending event.
  void handleEvents();
  uint32_t redumps() const { return redumps_; }

 private:
  struct Link {
    std::string name;
    bool usable = false;                                      // up and running
    std::vector<std::pair<Velnet::IpAddrWithMask, bool>> v4;  // address, secondary
    std::map<Velnet::Ip6AddrWithMask, uint32_t> v6;           // usable address, flags
  };

  bool dump(std::string* error);
  void discardQueuedEvents(std::vector<char>& buffer);
  void apply(const nlmsghdr* h);
  void applyLink(const nlmsghdr* h);
  void applyAddr(const nlmsghdr* h);
  // Brings the status entities of `name` in line with the model.
  void publish(const std::string& name);

  Vix::Ptr<Ip::Status> ipStatus_;
  Vix::Ptr<Ip6::Status> ip6Status_;
  std::map<int, Link> links_;
  int eventFd_ = -1;
  uint32_t redumps_ = 0;
};

}  // namespace Waymark
