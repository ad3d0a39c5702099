#include "kernel/MangleEvents.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Kernel {

namespace {

// Tables, chains, rules and sets all carry their table's name as attribute
// 1; the generation message that closes each transaction carries the
// committing process's id (big-endian).
constexpr uint16_t kTableName = 1;

bool nftables(const nlmsghdr& m) {
  return NFNL_SUBSYS_ID(m.nlmsg_type) == NFNL_SUBSYS_NFTABLES &&
         m.nlmsg_len >= NLMSG_LENGTH(sizeof(nfgenmsg));
}

// The payload of attribute `type` of an nf_tables message; empty when it
// has none.
std::string attribute(const nlmsghdr& m, uint16_t type) {
  const char* data = static_cast<const char*>(NLMSG_DATA(&m)) + NLMSG_ALIGN(sizeof(nfgenmsg));
  const char* end = reinterpret_cast<const char*>(&m) + m.nlmsg_len;
  while (data + NLA_HDRLEN <= end) {
    const auto* a = reinterpret_cast<const nlattr*>(data);
    if (a->nla_len < NLA_HDRLEN || data + a->nla_len > end) return "";
    if ((a->nla_type & NLA_TYPE_MASK) == type) {
      return std::string(data + NLA_HDRLEN, a->nla_len - NLA_HDRLEN);
    }
    data += NLA_ALIGN(a->nla_len);
  }
  return "";
}

bool aboutMangle(const nlmsghdr& m) {
  const auto* header = static_cast<const nfgenmsg*>(NLMSG_DATA(&m));
  if (header->nfgen_family != NFPROTO_IPV4 && header->nfgen_family != NFPROTO_IPV6) return false;
  return std::strcmp(attribute(m, kTableName).c_str(), "mangle") == 0;
}

int committer(const nlmsghdr& m) {
  const std::string pid = attribute(m, NFTA_GEN_PROC_PID);
  if (pid.size() != sizeof(uint32_t)) return 0;
  uint32_t value = 0;
  std::memcpy(&value, pid.data(), sizeof value);
  return static_cast<int>(ntohl(value));
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

std::vector<int> MangleEvents::handle() {
  std::vector<char> buffer(1 << 16);
  std::vector<int> committers;
  while (true) {
    const ssize_t got = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        committers.push_back(0);
        pending_ = false;
        continue;
      }
      return committers;
    }
    ssize_t length = got;
    for (auto* m = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(m, length);
         m = NLMSG_NEXT(m, length)) {
      if (!nftables(*m)) continue;
      if (NFNL_MSG_TYPE(m->nlmsg_type) != NFT_MSG_NEWGEN) {
        pending_ = pending_ || aboutMangle(*m);
        continue;
      }
      if (pending_) committers.push_back(committer(*m));
      pending_ = false;
    }
  }
}

}  // namespace Kernel
