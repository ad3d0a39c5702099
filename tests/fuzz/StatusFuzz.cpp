// Fuzzes what the kernel names interfaces with: any name it accepts (up to
// 15 bytes, none of NUL, '/', ':' or white space, so anything else, invalid
// UTF-8 and control bytes included) given addresses, applying a policy or
// applying one while absent, must give every control reply as JSON that
// parses back, waymarkctl's text of it, and log lines of valid UTF-8.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/StatusFormatter.h"
#include "control/ControlServer.h"
#include "framework/String.h"
#include "tests/support/PbrSystem.h"

namespace {

const char* const kConfig = R"(access-lists:
  web: [permit tcp any any eq 80]
  web6:
    ipv6: true
    rules: [permit tcp any any eq 80]
class-maps:
  web: [web]
  web6: [web6]
policy-maps:
  edge:
    - class: web
      nexthops: [192.0.2.1]
    - class: web6
      nexthops: ['2001:db8::1']
interfaces: {}
)";

bool kernelAccepts(const std::string& name) {
  if (name.empty() || name.size() > 15 || name == "." || name == "..") return false;
  for (const char c : name) {
    if (c == '\0' || c == '/' || c == ':' || std::isspace(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return true;
}

std::vector<std::string> namesOf(const std::string& data) {
  std::vector<std::string> names;
  size_t start = 0;
  while (start <= data.size() && names.size() < 4) {
    const size_t end = std::min(data.find('/', start), data.size());
    const std::string name = data.substr(start, end - start);
    if (kernelAccepts(name)) names.push_back(name);
    start = end + 1;
  }
  return names;
}

// The reply as the control socket writes it, read back as waymarkctl does;
// throws, and so aborts, on anything invalid.
nlohmann::json overTheWire(const nlohmann::json& reply) {
  return nlohmann::json::parse(Waymark::ControlServer::wireText(reply));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto names = namesOf(std::string(reinterpret_cast<const char*>(data), size));
  if (names.empty()) return 0;
  Waymark::ConfigModel model = Waymark::ConfigLoader::loadString(kConfig, "fuzz.yaml");
  waymark::test::PbrSystem world;
  for (size_t i = 0; i < names.size(); ++i) {
    model.interfaces[Velnet::IntfId(names[i])] = "edge";
    // The last one applies the policy without existing.
    if (i + 1 == names.size() && names.size() > 1) break;
    world.address(names[i], "192.0.2." + std::to_string(254 - i) + "/24");
    world.address6(names[i], "2001:db8::" + std::to_string(100 + i) + "/64");
  }
  world.router.start(model);
  world.runUntilIdle();

  const auto status = overTheWire(world.ask({{"command", "status"}}));
  (void)Waymark::StatusFormatter::all(status);
  (void)overTheWire(world.ask({{"command", "events"}}));
  const auto counters = overTheWire(world.ask({{"command", "counters"}}));
  (void)Waymark::StatusFormatter::classTraffic(counters);
  (void)overTheWire(world.ask({{"command", "explain"},
                               {"in", names.front()},
                               {"proto", "tcp"},
                               {"src", "192.0.2.10"},
                               {"dst", "203.0.113.1"},
                               {"dport", 80}}));
  for (const auto& line : world.logged) {
    (void)nlohmann::json(Vix::loggable(line)).dump();  // throws on invalid UTF-8
  }
  return 0;
}
