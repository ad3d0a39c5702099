#include "kernel/NetlinkListener.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

namespace Waymark {

namespace {

int openSocket(uint32_t groups, std::string* error) {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) {
    *error = std::string("netlink socket: ") + std::strerror(errno);
    return -1;
  }
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  addr.nl_groups = groups;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    *error = std::string("netlink bind: ") + std::strerror(errno);
    close(fd);
    return -1;
  }
  const int size = 4 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  return fd;
}

Velnet::IpAddr ipv4(const void* data) {
  uint32_t be = 0;
  std::memcpy(&be, data, 4);
  return Velnet::IpAddr(ntohl(be));
}

Velnet::Ip6Addr ipv6(const void* data) {
  Velnet::Ip6Addr::Bytes b{};
  std::memcpy(b.data(), data, 16);
  return Velnet::Ip6Addr(b);
}

}  // namespace

NetlinkListener::NetlinkListener(Publish publish) : publish_(std::move(publish)) {}

NetlinkListener::~NetlinkListener() {
  if (eventFd_ >= 0) close(eventFd_);
}

bool NetlinkListener::open(std::string* error) {
  eventFd_ = openSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR, error);
  return eventFd_ >= 0 && dump(error);
}

// Dumps links, then addresses, on a socket of its own, into a fresh model;
// then publishes every interface whose state changed or went away.
bool NetlinkListener::dump(std::string* error) {
  const int fd = openSocket(0, error);
  if (fd < 0) return false;
  const std::map<int, Link> before = links_;
  links_.clear();
  bool ok = true;
  for (const uint16_t type : {RTM_GETLINK, RTM_GETADDR}) {
    struct {
      nlmsghdr h;
      rtgenmsg g;
    } request{};
    request.h.nlmsg_len = sizeof request;
    request.h.nlmsg_type = type;
    request.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.h.nlmsg_seq = type;
    request.g.rtgen_family = AF_UNSPEC;
    if (send(fd, &request, sizeof request, 0) < 0) {
      *error = std::string("netlink dump: ") + std::strerror(errno);
      ok = false;
      break;
    }
    bool done = false;
    std::vector<char> buffer(1 << 16);
    while (!done) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 5000) <= 0) {
        *error = "netlink dump timed out";
        ok = false;
        break;
      }
      ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
      if (n < 0) {
        if (errno == EINTR || errno == EAGAIN) continue;
        *error = std::string("netlink dump: ") + std::strerror(errno);
        ok = false;
        break;
      }
      for (auto* h = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(h, n);
           h = NLMSG_NEXT(h, n)) {
        if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) {
          done = true;
          break;
        }
        apply(h);
      }
    }
    if (!ok) break;
  }
  close(fd);
  std::set<std::string> names;
  for (const auto& [index, link] : before) names.insert(link.name);
  for (const auto& [index, link] : links_) names.insert(link.name);
  for (const auto& name : names) publish(name);
  return ok;
}

void NetlinkListener::handleEvents() {
  std::vector<char> buffer(1 << 16);
  while (true) {
    ssize_t n = recv(eventFd_, buffer.data(), buffer.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        // Events were lost: the model may be stale anywhere. What is still
        // queued is older than the dump about to be taken and would undo
        // it, so it goes first.
        ++redumps_;
        discardQueuedEvents(buffer);
        std::string error;
        dump(&error);
        continue;
      }
      return;  // EAGAIN: nothing more now
    }
    std::set<std::string> touched;
    for (auto* h = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(h, n);
         h = NLMSG_NEXT(h, n)) {
      const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(h));
      const auto* addr = static_cast<const ifaddrmsg*>(NLMSG_DATA(h));
      const int index = (h->nlmsg_type == RTM_NEWLINK || h->nlmsg_type == RTM_DELLINK)
                            ? info->ifi_index
                            : static_cast<int>(addr->ifa_index);
      const std::string before = links_.count(index) ? links_[index].name : "";
      apply(h);
      if (!before.empty()) touched.insert(before);
      if (links_.count(index)) touched.insert(links_[index].name);
    }
    for (const auto& name : touched) publish(name);
  }
}

void NetlinkListener::discardQueuedEvents(std::vector<char>& buffer) {
  while (recv(eventFd_, buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0 || errno == EINTR ||
         errno == ENOBUFS) {
  }
}

void NetlinkListener::apply(const nlmsghdr* h) {
  if (h->nlmsg_type == RTM_NEWLINK || h->nlmsg_type == RTM_DELLINK) applyLink(h);
  if (h->nlmsg_type == RTM_NEWADDR || h->nlmsg_type == RTM_DELADDR) applyAddr(h);
}

void NetlinkListener::applyLink(const nlmsghdr* h) {
  const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(h));
  if (h->nlmsg_type == RTM_DELLINK) {
    links_.erase(info->ifi_index);
    return;
  }
  Link& link = links_[info->ifi_index];
  link.usable = (info->ifi_flags & IFF_UP) != 0 && (info->ifi_flags & IFF_RUNNING) != 0;
  int len = static_cast<int>(IFLA_PAYLOAD(h));
  for (auto* a = IFLA_RTA(info); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
    if (a->rta_type == IFLA_IFNAME) link.name = static_cast<const char*>(RTA_DATA(a));
  }
}

void NetlinkListener::applyAddr(const nlmsghdr* h) {
  const auto* msg = static_cast<const ifaddrmsg*>(NLMSG_DATA(h));
  const auto it = links_.find(static_cast<int>(msg->ifa_index));
  if (it == links_.end()) return;
  Link& link = it->second;
  uint32_t flags = msg->ifa_flags;
  const void* address = nullptr;
  const void* local = nullptr;
  int len = static_cast<int>(IFA_PAYLOAD(h));
  for (auto* a = IFA_RTA(msg); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
    if (a->rta_type == IFA_ADDRESS) address = RTA_DATA(a);
    if (a->rta_type == IFA_LOCAL) local = RTA_DATA(a);
    if (a->rta_type == IFA_FLAGS) std::memcpy(&flags, RTA_DATA(a), 4);
  }
  const bool add = h->nlmsg_type == RTM_NEWADDR;
  if (msg->ifa_family == AF_INET) {
    const void* data = local != nullptr ? local : address;
    if (data == nullptr) return;
    const Velnet::IpAddrWithMask a(ipv4(data), msg->ifa_prefixlen);
    auto& v4 = link.v4;
    const auto found =
        std::find_if(v4.begin(), v4.end(), [&](const auto& e) { return e.first == a; });
    const bool secondary = (flags & IFA_F_SECONDARY) != 0;
    if (!add) {
      if (found != v4.end()) v4.erase(found);
    } else if (found != v4.end()) {
      found->second = secondary;
    } else {
      v4.emplace_back(a, secondary);
    }
    return;
  }
  if (msg->ifa_family != AF_INET6 || address == nullptr) return;
  const Velnet::Ip6AddrWithMask a(ipv6(address), msg->ifa_prefixlen);
  if (!add || (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0) {
    link.v6.erase(a);
  } else {
    link.v6[a] = flags;
  }
}

void NetlinkListener::publish(const std::string& name) {
  if (name.empty()) return;
  Interface shown;
  shown.name = name;
  for (const auto& [index, link] : links_) {
    if (link.name != name) continue;
    shown.present = true;
    if (!link.usable) break;
    bool havePrimary = false;
    for (const auto& [a, secondary] : link.v4) {
      if (!secondary && !havePrimary) {
        shown.primary = a;
        havePrimary = true;
      } else {
        shown.secondaries.insert(a);
      }
    }
    shown.v6 = link.v6;
  }
  publish_(shown);
}

}  // namespace Waymark
