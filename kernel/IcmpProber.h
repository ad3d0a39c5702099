// Kernel::IcmpProber: puts the health checks' echo requests on the wire and
// takes in their answers; the daemon's loop watches its descriptors.
//
// A probe leaves through the nexthop's interface to the nexthop's link-layer
// address, as a frame of a packet socket, so that neither the routing tables
// nor the policy rules decide where it goes: a remote target is probed
// through that nexthop even when the main table sends it elsewhere, and
// while the nexthop has no rule of its own. The link-layer address comes from
// the kernel's neighbour table; when the entry is missing or not confirmed,
// one echo to the nexthop itself goes the kernel's way (out of that
// interface, to the connected subnet), which makes the kernel resolve or
// confirm it. Nothing is added to the kernel: no route, rule or mark.
//
// Answers are taken off the same packet sockets, before the IP layer, so
// that reverse-path filtering or a firewall's input chain does not hide
// them; a filter in the kernel lets only echo replies with this prober's
// identifier through. An answer counts when it carries this process's
// cookie and came in on the interface its probe left by.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kernel/FileDescriptor.h"
#include "kernel/ProbeSender.h"
#include "kernel/RtnetlinkSocket.h"

namespace Kernel {

class IcmpProber : public ProbeSender {
 public:
  using Answer = std::function<void(uint16_t sequence, const Velnet::IpGenAddr& from)>;

  IcmpProber();

  // Opens the sockets (CAP_NET_RAW needed); false and `error` set when it
  // cannot.
  bool open(std::string* error);
  // The descriptors to watch for answers.
  std::vector<int> fds() const;
  // Takes in every answer waiting and hands each that counts to `each`.
  void receive(const Answer& each);

  bool send(const Probe& probe) override;

 private:
  struct Neighbour {
    bool usable = false;     // a link-layer address to send to
    bool confirmed = false;  // recently confirmed, or static
    std::vector<uint8_t> lladdr;
  };
  Neighbour neighbour(int ifindex, const Velnet::IpGenAddr& nexthop);
  // The echo request of `probe`: IP header and ICMP message.
  std::vector<uint8_t> packet(const Probe& probe) const;
  std::vector<uint8_t> echo(const Probe& probe, bool v6) const;
  // Sends the echo the kernel's way, out of `ifindex`, to the nexthop.
  bool sendRouted(const Probe& probe, int ifindex);
  void receiveFrom(int fd, bool v6, const Answer& each);

  uint16_t identifier_;
  std::array<uint8_t, 8> cookie_;
  FileDescriptor packet4_;
  FileDescriptor packet6_;
  FileDescriptor routed4_;
  FileDescriptor routed6_;
  // Opened with the others, in the network namespace of open().
  std::optional<RtnetlinkSocket> netlink_;
  // The interface each probe awaiting an answer left by.
  std::unordered_map<uint16_t, int> sentVia_;
};

}  // namespace Kernel
