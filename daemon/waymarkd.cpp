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
  return Waymark::Daemon(*options).run();
}
