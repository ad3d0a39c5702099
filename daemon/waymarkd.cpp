// waymarkd: the policy-based-routing daemon. See Daemon.h.
#include <cstdio>

#include "daemon/Daemon.h"

int main(int argc, char** argv) {
  std::string error;
  const auto options = Waymark::Daemon::parseOptions(argc, argv, &error);
  if (!options) {
    std::fprintf(stderr, "waymarkd: %s\n%s", error.c_str(), Waymark::Daemon::usage());
    return 2;
  }
  if (options->help) {
    std::fputs(Waymark::Daemon::usage(), stdout);
    return 0;
  }
  if (options->version) {
    std::printf("waymarkd %s (%s)\n", WAYMARK_VERSION, WAYMARK_GIT_DESCRIPTION);
    return 0;
  }
  return Waymark::Daemon(*options).run();
}
