#include "kernel/MangleEvents.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Kernel {

namespace {

// Tables, chains, rules and sets all carry their table's name as attribute
// 1; the generation message that closes each transaction carries none.
constexpr uint16_t kTableName = 1;

bool aboutMangle(const nlmsghdr& m) {
  if (NFNL_SUBSYS_ID(m.nlmsg_type) != NFNL_SUBSYS_NFTABLES) return false;
  if (m.nlmsg_len < NLMSG_LENGTH(sizeof(nfgenmsg))) return false;
  const auto* header = static_cast<const nfgenmsg*>(NLMSG_DATA(&m));
  if (header->nfgen_family != NFPROTO_IPV4 && header->nfgen_family != NFPROTO_IPV6) return false;
  const char* data = static_cast<const char*>(NLMSG_DATA(&m)) + NLMSG_ALIGN(sizeof(nfgenmsg));
  const char* end = reinterpret_cast<const char*>(&m) + m.nlmsg_len;
  while (data + NLA_HDRLEN <= end) {
    const auto* a = reinterpret_cast<const nlattr*>(data);
    if (a->nla_len < NLA_HDRLEN || data + a->nla_len > end) return false;
    if ((a->nla_type & NLA_TYPE_MASK) == kTableName) {
      const std::string name(data + NLA_HDRLEN,
                             strnlen(data + NLA_HDRLEN, a->nla_len - NLA_HDRLEN));
      return name == "mangle";
    }
    data += NLA_ALIGN(a->nla_len);
  }
  return false;
}

}  // namespace

bool MangleEvents::open(std::string* error) {
  fd_ = Kernel::FileDescriptor(
      socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER));
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  const int group = NFNLGRP_NFTABLES;
  if (!fd_.valid() || bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      setsockopt(fd_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
    *error = std::string("netlink nf_tables events: ") + std::strerror(errno);
    return false;
  }
  const int size = 1 << 20;
  setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  return true;
}

bool MangleEvents::handle() {
  std::vector<char> buffer(1 << 16);
  bool relevant = false;
  while (true) {
    const ssize_t got = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        relevant = true;
        continue;
      }
      return relevant;
    }
    int length = static_cast<int>(got);
    for (auto* m = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(m, length);
         m = NLMSG_NEXT(m, length)) {
      relevant = relevant || aboutMangle(*m);
    }
  }
}

}  // namespace Kernel
