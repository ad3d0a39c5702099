#include "kernel/RoutingEvents.h"

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Kernel {

namespace {

constexpr uint32_t group(uint32_t g) { return 1u << (g - 1); }

// The 32-bit attribute `type` of a message whose fixed part is `Header`.
template <typename Header>
uint32_t u32(const nlmsghdr& m, uint16_t type, uint32_t otherwise) {
  int length = static_cast<int>(m.nlmsg_len) - static_cast<int>(NLMSG_LENGTH(sizeof(Header)));
  for (auto* a = reinterpret_cast<const rtattr*>(static_cast<const char*>(NLMSG_DATA(&m)) +
                                                 NLMSG_ALIGN(sizeof(Header)));
       RTA_OK(a, length); a = RTA_NEXT(a, length)) {
    if (a->rta_type != type) continue;
    uint32_t v = 0;
    std::memcpy(&v, RTA_DATA(a), sizeof v);
    return v;
  }
  return otherwise;
}

}  // namespace

bool RoutingEvents::open(std::string* error) {
  fd_ = Kernel::FileDescriptor(
      socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  addr.nl_groups = group(RTNLGRP_IPV4_RULE) | group(RTNLGRP_IPV6_RULE) | group(RTNLGRP_IPV4_ROUTE) |
                   group(RTNLGRP_IPV6_ROUTE);
  if (!fd_.valid() || bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    *error = std::string("netlink routing events: ") + std::strerror(errno);
    return false;
  }
  const int size = 4 << 20;
  setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  return true;
}

void RoutingEvents::handle(const Handlers& handlers) {
  std::vector<char> buffer(1 << 16);
  bool overran = false;
  while (true) {
    const ssize_t got = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        overran = true;
        continue;
      }
      break;  // EAGAIN: nothing more now
    }
    ssize_t n = got;
    for (auto* m = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(m, n);
         m = NLMSG_NEXT(m, n)) {
      if (m->nlmsg_type == RTM_NEWRULE) {
        const auto* h = static_cast<const fib_rule_hdr*>(NLMSG_DATA(m));
        handlers.newRule({h->family == AF_INET6, u32<fib_rule_hdr>(*m, FRA_PRIORITY, 0),
                          u32<fib_rule_hdr>(*m, FRA_FWMARK, 0),
                          u32<fib_rule_hdr>(*m, FRA_TABLE, h->table)});
      } else if (m->nlmsg_type == RTM_NEWROUTE) {
        const auto* r = static_cast<const rtmsg*>(NLMSG_DATA(m));
        if ((r->rtm_flags & RTM_F_CLONED) != 0) continue;
        handlers.newRoute({r->rtm_family == AF_INET6, u32<rtmsg>(*m, RTA_TABLE, r->rtm_table)});
      } else if (m->nlmsg_type == RTM_DELRULE ||
                 (m->nlmsg_type == RTM_DELROUTE &&
                  (static_cast<const rtmsg*>(NLMSG_DATA(m))->rtm_flags & RTM_F_CLONED) == 0)) {
        handlers.removed();
      }
    }
  }
  if (overran) handlers.overrun();
}

}  // namespace Kernel
