// Kernel::RtnetlinkSocket: a NETLINK_ROUTE socket for requests that wait
// for the kernel's answer: one change (answered with an acknowledgement or
// an error) or one dump (answered with many messages). Used by the
// rtnetlink executor and by the routing read-back; owns its descriptor.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <string>

#include "kernel/FileDescriptor.h"

namespace Kernel {

class RtnetlinkSocket {
 public:
  RtnetlinkSocket();

  // Sends `message` (its header's length says how long it is) with an
  // acknowledgement asked for; 0, or the kernel's -errno.
  int request(nlmsghdr* message);
  // Sends a request for one object (a neighbour, a route) and hands the
  // answer to `each`; 0 or the kernel's -errno (-ENOENT: there is none).
  int get(nlmsghdr* message, const std::function<void(const nlmsghdr&)>& each);
  // Sends a dump request and hands every answering message to `each`; 0 or
  // -errno.
  int dump(nlmsghdr* message, const std::function<void(const nlmsghdr&)>& each);

  uint32_t requests() const { return requests_; }

 private:
  // Sends `message` numbered anew with `flags` added, then reads the answer.
  int exchange(nlmsghdr* message, uint16_t flags, const std::function<void(const nlmsghdr&)>* each);
  // Reads answers to the request numbered `seq_` until it is done.
  int answer(const std::function<void(const nlmsghdr&)>* each);

  Kernel::FileDescriptor fd_;
  uint32_t seq_ = 0;
  uint32_t requests_ = 0;
};

// A request message with room for attributes.
struct RtnetlinkMessage {
  explicit RtnetlinkMessage(uint16_t type, uint16_t flags, uint32_t bodyLength);

  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(buffer); }
  template <typename Body>
  Body* body() {
    return static_cast<Body*>(NLMSG_DATA(header()));
  }
  void add(uint16_t type, const void* data, uint16_t length);
  void addU32(uint16_t type, uint32_t value) { add(type, &value, sizeof value); }

  alignas(nlmsghdr) char buffer[512] = {};
};

}  // namespace Kernel
