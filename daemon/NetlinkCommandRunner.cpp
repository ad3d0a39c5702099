#include "daemon/NetlinkCommandRunner.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/IpGenAddr.h"

namespace Waymark {

namespace {

constexpr int kRefused = 2 << 8;       // `ip` exits 2 when the kernel refuses
constexpr int kUsageError = 255 << 8;  // and 255 on a command it cannot read

struct Request {
  nlmsghdr header;
  union {
    rtmsg route;
    fib_rule_hdr rule;
  };
  char attrs[256];
};

void addAttr(Request& r, uint16_t type, const void* data, uint16_t length) {
  auto* a =
      reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&r) + NLMSG_ALIGN(r.header.nlmsg_len));
  a->rta_type = type;
  a->rta_len = static_cast<uint16_t>(RTA_LENGTH(length));
  std::memcpy(RTA_DATA(a), data, length);
  r.header.nlmsg_len = NLMSG_ALIGN(r.header.nlmsg_len) + RTA_ALIGN(a->rta_len);
}

void addU32(Request& r, uint16_t type, uint32_t value) { addAttr(r, type, &value, 4); }

std::optional<uint32_t> number(const std::string& word) {
  if (word.empty() || word.size() > 10 ||
      word.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const unsigned long long v = std::stoull(word);
  if (v > 0xffffffffull) return std::nullopt;
  return static_cast<uint32_t>(v);
}

}  // namespace

NetlinkCommandRunner::NetlinkCommandRunner(Pbr::CommandRunner* fallback) : fallback_(fallback) {
  fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd_ < 0) return;
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

NetlinkCommandRunner::~NetlinkCommandRunner() {
  if (fd_ >= 0) close(fd_);
}

int NetlinkCommandRunner::request(void* message, uint32_t length) {
  auto* h = static_cast<nlmsghdr*>(message);
  h->nlmsg_seq = ++seq_;
  ++requests_;
  if (send(fd_, message, length, 0) < 0) return -errno;
  std::vector<char> buffer(8192);
  while (true) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0) return -ETIMEDOUT;
    ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    for (auto* m = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(m, n);
         m = NLMSG_NEXT(m, n)) {
      if (m->nlmsg_seq != seq_ || m->nlmsg_type != NLMSG_ERROR) continue;
      return static_cast<const nlmsgerr*>(NLMSG_DATA(m))->error;
    }
  }
}

int NetlinkCommandRunner::run(const std::string& command) {
  std::istringstream in(command);
  std::vector<std::string> w;
  for (std::string word; in >> word;) w.push_back(word);
  const bool v6 = w.size() > 1 && w[1] == "-6";
  if (v6) w.erase(w.begin() + 1);
  const uint8_t family = v6 ? AF_INET6 : AF_INET;

  Request r{};
  r.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
  r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  bool known = false;

  if (fd_ >= 0 && w.size() == 5 && w[0] == "ip" && w[1] == "route" && w[2] == "del" &&
      w[3] == "table" && number(w[4])) {
    return kUsageError;
  }
  if (fd_ >= 0 && w.size() == 8 && w[0] == "ip" && w[1] == "route" && w[2] == "add" &&
      w[3] == "default" && w[4] == "via" && w[6] == "table") {
    const auto gateway = Velnet::IpGenAddr::tryParse(w[5]);
    const auto table = number(w[7]);
    if (gateway && table && gateway->isV6() == v6) {
      r.header.nlmsg_type = RTM_NEWROUTE;
      r.header.nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
      r.route.rtm_family = family;
      r.route.rtm_table = *table < 256 ? static_cast<uint8_t>(*table) : uint8_t{RT_TABLE_UNSPEC};
      r.route.rtm_protocol = RTPROT_BOOT;
      r.route.rtm_scope = RT_SCOPE_UNIVERSE;
      r.route.rtm_type = RTN_UNICAST;
      addU32(r, RTA_TABLE, *table);
      if (v6) {
        addAttr(r, RTA_GATEWAY, gateway->v6().bytes().data(), 16);
      } else {
        const uint32_t be = htonl(gateway->v4().value());
        addAttr(r, RTA_GATEWAY, &be, 4);
      }
      known = true;
    }
  } else if (fd_ >= 0 && w.size() == 9 && w[0] == "ip" && w[1] == "rule" && w[2] == "add" &&
             w[3] == "priority" && w[5] == "fwmark" && w[7] == "lookup") {
    const auto priority = number(w[4]);
    const auto mark = number(w[6]);
    const auto table = number(w[8]);
    if (priority && mark && table) {
      r.header.nlmsg_len = NLMSG_LENGTH(sizeof(fib_rule_hdr));
      r.header.nlmsg_type = RTM_NEWRULE;
      r.header.nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
      r.rule.family = family;
      r.rule.action = FR_ACT_TO_TBL;
      r.rule.table = *table < 256 ? static_cast<uint8_t>(*table) : uint8_t{RT_TABLE_UNSPEC};
      addU32(r, FRA_PRIORITY, *priority);
      addU32(r, FRA_FWMARK, *mark);
      addU32(r, FRA_TABLE, *table);
      known = true;
    }
  } else if (fd_ >= 0 && w.size() == 5 && w[0] == "ip" && w[1] == "rule" && w[2] == "del" &&
             w[3] == "priority") {
    if (const auto priority = number(w[4])) {
      r.header.nlmsg_len = NLMSG_LENGTH(sizeof(fib_rule_hdr));
      r.header.nlmsg_type = RTM_DELRULE;
      r.rule.family = family;
      addU32(r, FRA_PRIORITY, *priority);
      known = true;
    }
  }
  if (!known) {
    ++fallbacks_;
    return fallback_->run(command);
  }
  return request(&r, r.header.nlmsg_len) == 0 ? 0 : kRefused;
}

}  // namespace Waymark
