#include "kernel/RtnetlinkSocket.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Kernel {

namespace {

// A kernel that has not answered in this long is not going to.
constexpr int kAnswerTimeoutMs = 10000;

}  // namespace

RtnetlinkMessage::RtnetlinkMessage(uint16_t type, uint16_t flags, uint32_t bodyLength) {
  header()->nlmsg_len = NLMSG_LENGTH(bodyLength);
  header()->nlmsg_type = type;
  header()->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
}

void RtnetlinkMessage::add(uint16_t type, const void* data, uint16_t length) {
  auto* a = reinterpret_cast<rtattr*>(buffer + NLMSG_ALIGN(header()->nlmsg_len));
  a->rta_type = type;
  a->rta_len = static_cast<uint16_t>(RTA_LENGTH(length));
  std::memcpy(RTA_DATA(a), data, length);
  header()->nlmsg_len = NLMSG_ALIGN(header()->nlmsg_len) + RTA_ALIGN(a->rta_len);
}

RtnetlinkSocket::RtnetlinkSocket()
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  if (!fd_.valid()) return;
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd_.reset();
  // Large dumps (thousands of rules) arrive faster than they are read.
  const int size = 1 << 20;
  if (fd_.valid()) setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  // Dumps may then name what they want (a route dump one table), and the
  // kernel sends only that.
  const int strict = 1;
  if (fd_.valid())
    setsockopt(fd_.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &strict, sizeof strict);
}

int RtnetlinkSocket::request(nlmsghdr* message) { return exchange(message, NLM_F_ACK, nullptr); }

int RtnetlinkSocket::get(nlmsghdr* message, const std::function<void(const nlmsghdr&)>& each) {
  // The acknowledgement follows the answer and ends the exchange.
  return exchange(message, NLM_F_ACK, &each);
}

int RtnetlinkSocket::dump(nlmsghdr* message, const std::function<void(const nlmsghdr&)>& each) {
  return exchange(message, NLM_F_DUMP, &each);
}

int RtnetlinkSocket::exchange(nlmsghdr* message, uint16_t flags,
                              const std::function<void(const nlmsghdr&)>* each) {
  if (!fd_.valid()) return -EBADF;
  message->nlmsg_flags |= flags;
  message->nlmsg_seq = ++seq_;
  ++requests_;
  if (send(fd_.get(), message, message->nlmsg_len, 0) < 0) return -errno;
  return answer(each);
}

int RtnetlinkSocket::answer(const std::function<void(const nlmsghdr&)>* each) {
  std::vector<char> buffer(64 * 1024);
  while (true) {
    pollfd p{fd_.get(), POLLIN, 0};
    if (poll(&p, 1, kAnswerTimeoutMs) <= 0) return -ETIMEDOUT;
    ssize_t n = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    for (auto* m = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(m, n);
         m = NLMSG_NEXT(m, n)) {
      if (m->nlmsg_seq != seq_) continue;
      if (m->nlmsg_type == NLMSG_ERROR) return static_cast<const nlmsgerr*>(NLMSG_DATA(m))->error;
      if (m->nlmsg_type == NLMSG_DONE) return 0;
      if (each != nullptr) (*each)(*m);
    }
  }
}

}  // namespace Kernel
