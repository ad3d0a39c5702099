// What a reload changes, named in its reply.
#include "config/ReloadPlan.h"

#include <gtest/gtest.h>

#include "config/ConfigLoader.h"

namespace Waymark {
namespace {

ConfigModel model(const std::string& text) { return ConfigLoader::loadString(text, "f"); }

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

const std::string kBefore = R"(access-lists:
  web: [permit tcp any any eq 80]
  dns: [permit udp any any eq 53]
  ssh: [permit tcp any any eq 22]
class-maps: {web: [web], dns: [dns], ssh: [ssh]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1]}
    - {class: dns, nexthops: [192.0.2.2]}
  core:
    - {class: ssh, nexthops: [192.0.2.3]}
interfaces: {eth1: edge, eth2: core, eth3: edge}
)";

TEST(ReloadPlanTest, NamesWhatIsAddedChangedAndRemovedDownToTheListsAClassMatches) {
  // dns's list changes a port, web stays, core goes, lab comes, eth3 moves,
  // eth2 is unbound and eth4 bound.
  std::string after = replaced(kBefore, "eq 53", "eq 54");
  after = replaced(after, "  core:", "  lab:");
  after = replaced(after, "interfaces: {eth1: edge, eth2: core, eth3: edge}",
                   "interfaces: {eth1: edge, eth3: lab, eth4: edge}");
  const auto plan = ReloadPlan::between(model(kBefore), model(after));
  EXPECT_EQ(plan.text(),
            "policies added: lab; policies changed: edge; policies removed: core; classes added: "
            "lab/ssh; classes changed: edge/dns; classes removed: core/ssh; interfaces bound: "
            "eth4; interfaces moved: eth3; interfaces unbound: eth2");
  EXPECT_EQ(plan.toJson()["classesChanged"], nlohmann::json::array({"edge/dns"}));
  EXPECT_EQ(ReloadPlan::between(model(kBefore), model(kBefore)).text(), "nothing");
}

}  // namespace
}  // namespace Waymark
