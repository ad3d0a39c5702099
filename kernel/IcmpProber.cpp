#include "kernel/IcmpProber.h"

// Before the kernel's headers, which then leave out what it declares.
#include <net/if.h>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/icmp.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace Kernel {

namespace {

constexpr size_t kIp4Header = 20;
constexpr size_t kIp6Header = 40;
constexpr size_t kEchoHeader = 8;
constexpr uint8_t kEcho4 = 8;
constexpr uint8_t kEchoReply4 = 0;
constexpr uint8_t kEcho6 = 128;
constexpr uint8_t kEchoReply6 = 129;

// The one's complement sum of `data` as 16-bit words, folded.
uint32_t sum(const uint8_t* data, size_t length, uint32_t s = 0) {
  for (size_t i = 0; i + 1 < length; i += 2) s += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
  if (length % 2 != 0) s += static_cast<uint32_t>(data[length - 1] << 8);
  return s;
}

uint16_t finish(uint32_t s) {
  while (s >> 16) s = (s & 0xffff) + (s >> 16);
  return static_cast<uint16_t>(~s);
}

void put16(uint8_t* at, uint16_t v) {
  at[0] = static_cast<uint8_t>(v >> 8);
  at[1] = static_cast<uint8_t>(v);
}

uint16_t get16(const uint8_t* at) { return static_cast<uint16_t>(at[0] << 8 | at[1]); }

void putAddress(uint8_t* at, const Velnet::IpGenAddr& a) {
  if (a.isV4()) {
    const uint32_t v = htonl(a.v4().value());
    std::memcpy(at, &v, 4);
  } else {
    std::memcpy(at, a.v6().bytes().data(), 16);
  }
}

// Lets through echo replies with identifier `id`, nothing else: IPv4 after
// its options, unfragmented.
std::vector<sock_filter> replyFilter4(uint16_t id) {
  return {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_ICMP, 0, 8),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, 6, 0),
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kEchoReply4, 0, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 4),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, id, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
}

// The same for IPv6, whose echo replies carry no extension headers.
std::vector<sock_filter> replyFilter6(uint16_t id) {
  return {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 6),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_ICMPV6, 0, 5),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kIp6Header),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kEchoReply6, 0, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, kIp6Header + 4),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, id, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
}

// A packet socket of one IP family on every interface, filtered by
// `program` from the first packet on.
FileDescriptor packetSocket(uint16_t ethertype, std::vector<sock_filter> program) {
  FileDescriptor fd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return fd;
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  sockaddr_ll addr{};
  addr.sll_family = AF_PACKET;
  addr.sll_protocol = htons(ethertype);
  if (setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
      bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fd.reset();
  }
  return fd;
}

// Puts `info` in `msg`'s control buffer as its one control message.
template <class Info>
void attach(msghdr& msg, int level, int type, const Info& info) {
  msg.msg_controllen = CMSG_SPACE(sizeof info);
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = level;
  c->cmsg_type = type;
  c->cmsg_len = CMSG_LEN(sizeof info);
  std::memcpy(CMSG_DATA(c), &info, sizeof info);
}

// A raw socket that only sends: its copies of incoming ICMP are filtered out.
FileDescriptor sendingSocket(bool v6) {
  FileDescriptor fd(socket(v6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK,
                           v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP}));
  if (!fd.valid()) return fd;
  int ok = 0;
  if (v6) {
    icmp6_filter none;
    ICMP6_FILTER_SETBLOCKALL(&none);
    ok = setsockopt(fd.get(), IPPROTO_ICMPV6, ICMP6_FILTER, &none, sizeof none);
  } else {
    const icmp_filter none{~0u};
    ok = setsockopt(fd.get(), SOL_RAW, ICMP_FILTER, &none, sizeof none);
  }
  if (ok != 0) fd.reset();
  return fd;
}

}  // namespace

IcmpProber::IcmpProber() {
  std::random_device random;
  identifier_ = static_cast<uint16_t>(random());
  for (auto& b : cookie_) b = static_cast<uint8_t>(random());
}

bool IcmpProber::open(std::string* error) {
  packet4_ = packetSocket(ETH_P_IP, replyFilter4(identifier_));
  packet6_ = packetSocket(ETH_P_IPV6, replyFilter6(identifier_));
  routed4_ = sendingSocket(false);
  routed6_ = sendingSocket(true);
  netlink_.emplace();
  if (packet4_.valid() && packet6_.valid() && routed4_.valid() && routed6_.valid()) return true;
  *error = std::string("health-check sockets: ") + std::strerror(errno);
  return false;
}

std::vector<int> IcmpProber::fds() const { return {packet4_.get(), packet6_.get()}; }

std::vector<uint8_t> IcmpProber::echo(const Probe& probe, bool v6) const {
  std::vector<uint8_t> m(kEchoHeader + cookie_.size());
  m[0] = v6 ? kEcho6 : kEcho4;
  put16(&m[4], identifier_);
  put16(&m[6], probe.sequence);
  std::memcpy(&m[kEchoHeader], cookie_.data(), cookie_.size());
  if (!v6) put16(&m[2], finish(sum(m.data(), m.size())));
  return m;
}

std::vector<uint8_t> IcmpProber::packet(const Probe& probe) const {
  const bool v6 = probe.target.isV6();
  std::vector<uint8_t> m = echo(probe, v6);
  const size_t header = v6 ? kIp6Header : kIp4Header;
  std::vector<uint8_t> out(header + m.size());
  if (v6) {
    out[0] = 0x60;
    put16(&out[4], static_cast<uint16_t>(m.size()));
    out[6] = IPPROTO_ICMPV6;
    out[7] = 64;
    putAddress(&out[8], probe.source);
    putAddress(&out[24], probe.target);
    // The checksum covers a pseudo-header: addresses, length, next header.
    const uint32_t pseudo = sum(&out[8], 32, static_cast<uint32_t>(m.size() + IPPROTO_ICMPV6));
    put16(&m[2], finish(sum(m.data(), m.size(), pseudo)));
  } else {
    out[0] = 0x45;
    put16(&out[2], static_cast<uint16_t>(out.size()));
    put16(&out[6], 0x4000);  // don't fragment
    out[8] = 64;
    out[9] = IPPROTO_ICMP;
    putAddress(&out[12], probe.source);
    putAddress(&out[16], probe.target);
    put16(&out[10], finish(sum(out.data(), kIp4Header)));
  }
  std::memcpy(&out[header], m.data(), m.size());
  return out;
}

IcmpProber::Neighbour IcmpProber::neighbour(int ifindex, const Velnet::IpGenAddr& nexthop) {
  RtnetlinkMessage m(RTM_GETNEIGH, 0, sizeof(ndmsg));
  m.body<ndmsg>()->ndm_family = nexthop.isV6() ? AF_INET6 : AF_INET;
  m.body<ndmsg>()->ndm_ifindex = ifindex;
  uint8_t address[16];
  putAddress(address, nexthop);
  m.add(NDA_DST, address, nexthop.isV6() ? 16 : 4);
  uint16_t state = 0;
  Neighbour out;
  if (!netlink_) return {};
  netlink_->get(m.header(), [&](const nlmsghdr& answer) {
    if (answer.nlmsg_type != RTM_NEWNEIGH) return;
    auto* nd = static_cast<ndmsg*>(NLMSG_DATA(const_cast<nlmsghdr*>(&answer)));
    state = nd->ndm_state;
    int length = static_cast<int>(answer.nlmsg_len - NLMSG_LENGTH(sizeof(ndmsg)));
    for (auto* a = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(nd) + NLMSG_ALIGN(sizeof *nd));
         RTA_OK(a, length); a = RTA_NEXT(a, length)) {
      if (a->rta_type != NDA_LLADDR) continue;
      const auto* bytes = static_cast<const uint8_t*>(RTA_DATA(a));
      out.lladdr.assign(bytes, bytes + RTA_PAYLOAD(a));
    }
  });
  const uint16_t known = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
  out.usable = ((state & known) != 0 && !out.lladdr.empty()) || (state & NUD_NOARP) != 0;
  out.confirmed = (state & (NUD_REACHABLE | NUD_PERMANENT | NUD_NOARP)) != 0;
  if (out.lladdr.size() > 8) out.usable = false;
  return out;
}

bool IcmpProber::sendRouted(const Probe& probe, int ifindex) {
  const bool v6 = probe.nexthop.isV6();
  Probe toNexthop = probe;
  toNexthop.target = probe.nexthop;
  std::vector<uint8_t> m = echo(toNexthop, v6);
  iovec data{m.data(), m.size()};
  msghdr msg{};
  msg.msg_iov = &data;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  msg.msg_control = control;
  sockaddr_in to4{};
  sockaddr_in6 to6{};
  if (v6) {
    to6.sin6_family = AF_INET6;
    putAddress(to6.sin6_addr.s6_addr, probe.nexthop);
    to6.sin6_scope_id = static_cast<uint32_t>(ifindex);
    msg.msg_name = &to6;
    msg.msg_namelen = sizeof to6;
    in6_pktinfo info{};
    if (probe.source.isV6()) putAddress(info.ipi6_addr.s6_addr, probe.source);
    info.ipi6_ifindex = static_cast<unsigned>(ifindex);
    attach(msg, IPPROTO_IPV6, IPV6_PKTINFO, info);
  } else {
    to4.sin_family = AF_INET;
    to4.sin_addr.s_addr = htonl(probe.nexthop.v4().value());
    msg.msg_name = &to4;
    msg.msg_namelen = sizeof to4;
    in_pktinfo info{};
    info.ipi_ifindex = ifindex;
    if (probe.source.isV4()) info.ipi_spec_dst.s_addr = htonl(probe.source.v4().value());
    attach(msg, IPPROTO_IP, IP_PKTINFO, info);
  }
  return sendmsg((v6 ? routed6_ : routed4_).get(), &msg, 0) >= 0;
}

bool IcmpProber::send(const Probe& probe) {
  const int ifindex = static_cast<int>(if_nametoindex(probe.interface.c_str()));
  if (ifindex == 0) return false;
  const bool v6 = probe.target.isV6();
  const Neighbour n = neighbour(ifindex, probe.nexthop);
  bool sent = false;
  // The kernel's own echo to the nexthop resolves or confirms its address;
  // when the nexthop is the target, that echo is the probe.
  if (!n.confirmed) sent = sendRouted(probe, ifindex) && probe.target == probe.nexthop;
  if (n.usable) {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(v6 ? ETH_P_IPV6 : ETH_P_IP);
    to.sll_ifindex = ifindex;
    to.sll_halen = static_cast<unsigned char>(n.lladdr.size());
    std::memcpy(to.sll_addr, n.lladdr.data(), n.lladdr.size());
    const auto bytes = packet(probe);
    const int fd = (v6 ? packet6_ : packet4_).get();
    if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >=
        0) {
      sent = true;
    }
  }
  if (sent) sentVia_[probe.sequence] = ifindex;
  return sent;
}

void IcmpProber::receive(const Answer& each) {
  receiveFrom(packet4_.get(), false, each);
  receiveFrom(packet6_.get(), true, each);
}

void IcmpProber::receiveFrom(int fd, bool v6, const Answer& each) {
  uint8_t buffer[512];
  while (true) {
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    const ssize_t n =
        recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return;
    if (from.sll_pkttype == PACKET_OUTGOING || n < static_cast<ssize_t>(kIp4Header)) continue;
    const size_t header = v6 ? kIp6Header : static_cast<size_t>(buffer[0] & 0x0f) * 4;
    if (static_cast<size_t>(n) < header + kEchoHeader + cookie_.size()) continue;
    const uint8_t* m = buffer + header;
    if (std::memcmp(m + kEchoHeader, cookie_.data(), cookie_.size()) != 0) continue;
    const uint16_t sequence = get16(m + 6);
    const auto via = sentVia_.find(sequence);
    if (via == sentVia_.end() || via->second != from.sll_ifindex) continue;
    Velnet::IpGenAddr source;
    if (v6) {
      Velnet::Ip6Addr::Bytes bytes;
      std::memcpy(bytes.data(), buffer + 8, 16);
      source = Velnet::Ip6Addr(bytes);
    } else {
      uint32_t v;
      std::memcpy(&v, buffer + 12, 4);
      source = Velnet::IpAddr(ntohl(v));
    }
    each(sequence, source);
  }
}

}  // namespace Kernel
