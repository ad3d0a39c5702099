// The health checks' prober against the kernel: a host namespace behind a
// veth pair is the nexthop, with a remote address on its loopback that only
// it can reach. Probes must be answered by the nexthop itself and by the
// remote address through it, although this side's main table throws that
// address away, and must leave routes and rules as they were.
#include "kernel/IcmpProber.h"

#include <poll.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Velnet::IpGenAddr;

// The far end of the link: a namespace of its own, removed with the object.
class Host {
 public:
  Host(const NetworkNamespace& ns, const std::string& link) : name_(ns.name() + "-host"), ns_(ns) {
    ns.run("ip netns add " + name_ + " && ip link set " + link + " netns " + name_);
  }
  ~Host() {
    // Nothing to do about a namespace that will not go: the test has its
    // verdict already.
    [[maybe_unused]] const int status =
        std::system(("ip netns del " + name_ + " 2>/dev/null").c_str());
  }
  std::string run(const std::string& command) const {
    return ns_.run("ip netns exec " + name_ + " sh -c '" + command + "'");
  }

 private:
  std::string name_;
  const NetworkNamespace& ns_;
};

class IcmpProberKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns = std::make_unique<NetworkNamespace>();
    ns->addLinkPair("wp0", "wph0");
    host = std::make_unique<Host>(*ns, "wph0");
    host->run(
        "ip link set lo up && ip link set wph0 up && "
        "ip addr add 192.0.2.1/24 dev wph0 && ip addr add 2001:db8::1/64 dev wph0 nodad && "
        "ip addr add 198.51.100.1/32 dev lo && ip addr add 2001:db8:ff::1/128 dev lo && "
        "ip route add default via 192.0.2.2 && ip -6 route add default via 2001:db8::2");
    ns->run(
        "ip addr add 192.0.2.2/24 dev wp0 && ip addr add 2001:db8::2/64 dev wp0 nodad && "
        "ip route add blackhole 198.51.100.0/24 && ip -6 route add blackhole 2001:db8:ff::/48");
    std::string error;
    ASSERT_TRUE(prober.open(&error)) << error;
  }

  // Sends `probe` until it leaves and is answered, for up to `seconds`; who
  // answered, or nothing.
  std::optional<IpGenAddr> answer(Kernel::Probe probe, int seconds = 10) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
      probe.sequence = ++sequence;
      if (!prober.send(probe)) {
        pollfd none{-1, 0, 0};
        poll(&none, 0, 100);  // the bounded wait between tries of a condition
        continue;
      }
      std::optional<IpGenAddr> from;
      std::vector<pollfd> fds;
      for (const int fd : prober.fds()) fds.push_back({fd, POLLIN, 0});
      if (poll(fds.data(), fds.size(), 300) > 0) {
        prober.receive([&](uint16_t seq, const IpGenAddr& source) {
          if (seq == probe.sequence) from = source;
        });
      }
      if (from) return from;
    }
    return std::nullopt;
  }

  static Kernel::Probe probe(const char* target, const char* nexthop, const char* source) {
    return {0, IpGenAddr::parse(target), IpGenAddr::parse(nexthop), "wp0",
            IpGenAddr::parse(source)};
  }

  std::unique_ptr<NetworkNamespace> ns;
  std::unique_ptr<Host> host;
  Kernel::IcmpProber prober;
  uint16_t sequence = 0;
};

TEST_F(IcmpProberKernelTest, TheNexthopItselfAnswersInBothFamilies) {
  EXPECT_EQ(answer(probe("192.0.2.1", "192.0.2.1", "192.0.2.2")), IpGenAddr::parse("192.0.2.1"));
  EXPECT_EQ(answer(probe("2001:db8::1", "2001:db8::1", "2001:db8::2")),
            IpGenAddr::parse("2001:db8::1"));
}

TEST_F(IcmpProberKernelTest, ARemoteTargetIsReachedThroughTheNexthopWhateverTheTablesSay) {
  const std::string state = "ip rule; ip -6 rule; ip route show table all | grep -v ' table local'";
  const std::string before = ns->run(state);
  EXPECT_EQ(answer(probe("198.51.100.1", "192.0.2.1", "192.0.2.2")),
            IpGenAddr::parse("198.51.100.1"));
  EXPECT_EQ(answer(probe("2001:db8:ff::1", "2001:db8::1", "2001:db8::2")),
            IpGenAddr::parse("2001:db8:ff::1"));
  EXPECT_EQ(ns->run(state), before);
}

TEST_F(IcmpProberKernelTest, ANexthopThatDropsEchoRequestsOrIsGoneIsNotAnswered) {
  host->run("iptables -A INPUT -p icmp --icmp-type echo-request -j DROP");
  // Two seconds of tries: the answered cases above take a fraction of one.
  EXPECT_FALSE(answer(probe("192.0.2.1", "192.0.2.1", "192.0.2.2"), 2));
  host->run("ip -6 addr del 2001:db8::1/64 dev wph0");
  EXPECT_FALSE(answer(probe("2001:db8::1", "2001:db8::1", "2001:db8::2"), 2));
}

}  // namespace
}  // namespace waymark::test
