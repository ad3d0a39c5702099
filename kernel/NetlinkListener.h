// Waymark::NetlinkListener: follows the kernel's links and addresses, from an
// initial dump and then RTM_NEWLINK/DELLINK/NEWADDR/DELADDR events, and hands
// the daemon what each changed interface now shows (an Interface value); the
// daemon's InterfaceStatusSync turns that into the status entities.
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
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "net/Ip6AddrWithMask.h"
#include "net/IpAddrWithMask.h"

namespace Waymark {

class NetlinkListener {
 public:
  // What one interface shows: nothing but its name when it is gone, no
  // addresses while it is down.
  struct Interface {
    std::string name;
    bool present = false;
    Velnet::IpAddrWithMask primary;  // 0.0.0.0/0 when there is none
    std::set<Velnet::IpAddrWithMask> secondaries;
    std::map<Velnet::Ip6AddrWithMask, uint32_t> v6;  // usable address, IFA_F_* flags
  };
  using Publish = std::function<void(const Interface&)>;

  explicit NetlinkListener(Publish publish);
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
  // Hands out what `name` shows now.
  void publish(const std::string& name);

  Publish publish_;
  std::map<int, Link> links_;
  int eventFd_ = -1;
  uint32_t redumps_ = 0;
};

}  // namespace Waymark
