// The plug-in's start: what it mounts, and what it builds when the mounts are
// complete, whatever the state database reports.
#include <gtest/gtest.h>

#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

class Startup : public PbrSystemTest {};

TEST_F(Startup, InitMountsNinePathsInOrderAndClosesTheGroupOnce) {
  Cell::cellIdIs(42);
  start();
  Cell::cellIdIs(1);
  ASSERT_EQ(router.store()->mountGroups().size(), 1u);
  const auto& group = *router.store()->mountGroups()[0];
  EXPECT_TRUE(group.closed());
  EXPECT_EQ(group.mounts(),
            (std::vector<Stordb::Mount>{
                {"pbr/config", "Pbr::Config", "r"},
                {"pbr/statusRequest", "PolicyMap::PolicyMapStatusRequestDir", "r"},
                {"cell/42/pbr/status/iptables", "PolicyMap::PolicyMapTypeStatus", "fwc"},
                {"acl/config", "Acl::Config", "r"},
                {"lag/input/config/cli", "Lag::Input::Config", "r"},
                {"ip/status", "Ip::Status", "r"},
                {"ip6/status", "Ip6::Status", "r"},
                {"routing/routingInfo/status", "Routing::RoutingInfo", "r"},
                {"routing6/routingInfo/status", "Routing6::RoutingInfo", "r"},
            }));
}

TEST_F(Startup, MissingMountsStillBuildEverythingAroundOneManager) {
  const auto plugin = Pbr::aclPluginFactory("waymark");
  plugin->init(Vix::make<Acl::PluginContext>(Vix::make<Stordb::EntityManager>(), &runner, &writer));
  ASSERT_TRUE(plugin->nexthopTableManager());
  ASSERT_TRUE(plugin->aclHelper());
  ASSERT_TRUE(plugin->pbrAclPluginSm());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->initialized());
  EXPECT_EQ(plugin->aclHelper()->nexthopTableManager(), plugin->nexthopTableManager());
  EXPECT_EQ(plugin->pbrAclPluginSm()->nexthopTableManager(), plugin->nexthopTableManager());
  // Hardware initialisation ran in both families.
  EXPECT_EQ(writer.batches.size(), 2u);
}

TEST_F(Startup, TheContextReplacesTheWaysToTheKernel) {
  start();
  EXPECT_EQ(plugin->nexthopTableManager()->commandRunner(), &runner);
  plugin->contextIs(plugin->context());
  EXPECT_EQ(writer.batches.size(), 2u);
}

}  // namespace
}  // namespace waymark::test
