// udp_stream ADDRESS PORT INTERVAL_MS: sends one small UDP datagram to
// ADDRESS:PORT every INTERVAL_MS milliseconds, on a fixed schedule, until
// SIGTERM or SIGINT; then prints how many it sent. The restart scenario runs
// it in the lab's client to see where a steady stream goes across a restart.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

volatile sig_atomic_t stopping = 0;

void stop(int) { stopping = 1; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: udp_stream ADDRESS PORT INTERVAL_MS\n");
    return 2;
  }
  sockaddr_storage to{};
  socklen_t length = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&to);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&to);
  const auto port = htons(static_cast<uint16_t>(std::atoi(argv[2])));
  if (inet_pton(AF_INET, argv[1], &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = port;
    length = sizeof *v4;
  } else if (inet_pton(AF_INET6, argv[1], &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = port;
    length = sizeof *v6;
  } else {
    std::fprintf(stderr, "udp_stream: bad address %s\n", argv[1]);
    return 2;
  }
  const int fd = socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 1;
  signal(SIGTERM, stop);
  signal(SIGINT, stop);
  const long interval = std::atol(argv[3]) * 1000000L;
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  unsigned long sent = 0;
  while (!stopping) {
    if (sendto(fd, "waymark", 7, 0, reinterpret_cast<sockaddr*>(&to), length) == 7) ++sent;
    next.tv_nsec += interval;
    while (next.tv_nsec >= 1000000000L) {
      next.tv_nsec -= 1000000000L;
      ++next.tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  close(fd);
  std::printf("%lu\n", sent);
  return 0;
}
