// A class's nexthop selector and action state machines, one class at a time.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugin/ClassCommonData.h"
#include "plugin/NexthopActionSm.h"
#include "plugin/NoActionSm.h"
#include "plugin/PbrClassMapSm.h"
#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

using Velnet::IpGenAddr;

// Counts the class data's notifications.
class ClassWatcher : public Pbr::ClassCommonData::NotifieeConst {
 public:
  void onNexthopValue() override { ++nexthopValues; }
  void onPassthroughConfigured() override { ++passthroughs; }
  int nexthopValues = 0;
  int passthroughs = 0;
};

class NexthopSelection : public ::testing::Test {
 protected:
  NexthopSelection() {
    manager->commandRunnerIs(&runner);
    selector()->activeIs(true);
  }
  Pbr::MasterNexthopSm* selector() const { return data->masterNexthopSm().get(); }
  static Vix::Ptr<Pbr::PbrFwdAction> action(const std::vector<std::string>& nexthops) {
    std::vector<IpGenAddr> addrs;
    for (const auto& n : nexthops) addrs.push_back(IpGenAddr::parse(n));
    return Vix::make<Pbr::PbrFwdAction>(addrs);
  }
  void programmed(const std::string& nh, bool p) { manager->programmedIs(IpGenAddr::parse(nh), p); }

  VirtualClock clock;
  TraceCapture traces;
  RecordingCommandRunner runner;
  Vix::Ptr<Pbr::NexthopTableManager> manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  Vix::Ptr<Pbr::ClassCommonData> data = [this] {
    auto d = Vix::make<Pbr::ClassCommonData>("web", nullptr, nullptr);
    d->masterNexthopSmIs(manager);
    return d;
  }();
};

TEST_F(NexthopSelection, AClassWhoseNexthopsAreAllUnprogrammedHasNone) {
  selector()->nexthopIs(action({"192.0.2.1", "192.0.2.2"}));
  EXPECT_TRUE(data->nexthopValue().isUnset());
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.1")), 1u);
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.2")), 1u);
}

TEST_F(NexthopSelection, TheEarlierNexthopInConfigurationOrderWinsWhicheverCameUpLast) {
  selector()->nexthopIs(action({"192.0.2.9", "192.0.2.1"}));
  programmed("192.0.2.1", true);
  EXPECT_EQ(data->nexthopValue(), IpGenAddr::parse("192.0.2.1"));
  programmed("192.0.2.9", true);
  EXPECT_EQ(data->nexthopValue(), IpGenAddr::parse("192.0.2.9"));
  EXPECT_EQ(traces.texts(4).back(), "Setting web nexthop to 192.0.2.9");
  const uint32_t updates = data->updateAclActions();
  programmed("192.0.2.1", false);
  programmed("192.0.2.1", true);
  EXPECT_EQ(data->updateAclActions(), updates);  // the choice did not change
}

TEST_F(NexthopSelection, LosingTheChosenNexthopMovesToTheNextProgrammedOneOrToNone) {
  selector()->nexthopIs(action({"192.0.2.1", "192.0.2.2", "192.0.2.3"}));
  programmed("192.0.2.1", true);
  programmed("192.0.2.3", true);
  programmed("192.0.2.1", false);
  EXPECT_EQ(data->nexthopValue(), IpGenAddr::parse("192.0.2.3"));
  programmed("192.0.2.3", false);
  EXPECT_TRUE(data->nexthopValue().isUnset());
}

TEST_F(NexthopSelection, ANexthopOfAnotherClassChangesNothing) {
  selector()->nexthopIs(action({"192.0.2.1"}));
  const uint32_t updates = data->updateAclActions();
  programmed("198.51.100.1", true);
  EXPECT_EQ(data->updateAclActions(), updates);
  EXPECT_TRUE(data->nexthopValue().isUnset());
  EXPECT_EQ(traces.texts(8).back().find("198.51.100.1 programmed") != std::string::npos, true);
}

TEST_F(NexthopSelection, AnEmptyNexthopListResetsTheChoiceAndAsksForOneClassUpdate) {
  selector()->nexthopIs(action({"192.0.2.1"}));
  programmed("192.0.2.1", true);
  const uint32_t updates = data->updateAclActions();
  selector()->nexthopIs(action({}));
  EXPECT_TRUE(data->nexthopValue().isUnset());
  EXPECT_EQ(data->updateAclActions(), updates + 1);
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.1")), 0u);
}

TEST_F(NexthopSelection, AnInactiveSelectorNeitherCountsNorChooses) {
  selector()->activeIs(false);
  selector()->nexthopIs(action({"192.0.2.1"}));
  programmed("192.0.2.1", true);
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.1")), 0u);
  EXPECT_TRUE(data->nexthopValue().isUnset());
}

TEST_F(NexthopSelection, CleanupCountsEveryNexthopOut) {
  selector()->nexthopIs(action({"192.0.2.1", "192.0.2.2"}));
  selector()->cleanup();
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.1")), 0u);
  EXPECT_EQ(manager->nexthop(IpGenAddr::parse("192.0.2.2")), 0u);
  EXPECT_FALSE(selector()->oldNexthop());
}

TEST_F(NexthopSelection, PassthroughNotifiesOnlyOnChange) {
  const auto watcher = Vix::make<ClassWatcher>();
  watcher->notifierIs(data.get());
  data->passthroughConfiguredIs(false);
  EXPECT_EQ(watcher->passthroughs, 0);
  data->passthroughConfiguredIs(true);
  data->passthroughConfiguredIs(true);
  EXPECT_EQ(watcher->passthroughs, 1);
}

// Which action state machine a class gets.
class ActionStateMachines : public PbrSystemTest {
 protected:
  Vix::Ptr<PolicyMap::ActionSm> actionSmFor(PolicyMap::ActionType type, uint8_t kind) {
    auto classAction = Vix::make<PolicyMap::ClassAction>();
    classAction->actionIs(Vix::make<PolicyMap::Action>(type, kind, Vix::make<Pbr::PbrFwdAction>()));
    start();
    const auto sm = Vix::make<Pbr::ClassMapSm>(
        plugin->pbrAclPluginSm()->globalCommonData(),
        Vix::make<PolicyMap::PolicyMapSmCommonData>(PolicyMap::PolicyMapSmKey("edge")),
        Vix::make<PolicyMap::ClassMapConfig>("web", classAction), nullptr, classAction,
        plugin->nexthopTableManager());
    sm->start();
    return sm->createActionSm(type);
  }
};

TEST_F(ActionStateMachines, TheKindOfTheForwardingActionChoosesTheStateMachine) {
  EXPECT_TRUE(Vix::ptrCast<Pbr::NoActionSm>(actionSmFor(PolicyMap::actionPbrFwd, 0)));
  EXPECT_TRUE(Vix::ptrCast<Pbr::NexthopGroupActionSm>(actionSmFor(PolicyMap::actionPbrFwd, 3)));
  const auto nexthops = actionSmFor(PolicyMap::actionPbrFwd, 2);
  EXPECT_TRUE(Vix::ptrCast<Pbr::NexthopActionSm>(nexthops));
  EXPECT_FALSE(Vix::ptrCast<Pbr::NexthopGroupActionSm>(nexthops));
  EXPECT_FALSE(actionSmFor(PolicyMap::actionPbrFwd, 1));
  EXPECT_FALSE(actionSmFor(PolicyMap::actionSetDscp, 2));
  EXPECT_EQ(traces.texts(8).back(), "ClassMapSm(edge, web)::createActionSm: 1");
}

TEST_F(ActionStateMachines, AFreshPassthroughClassOnlyAsksForItsOwnUpdate) {
  accessList("local", {"permit ip any any"});
  classMap("local", {"local"});
  policy("edge", {{"local", {}}});
  start();
  const auto sm = plugin->pbrAclPluginSm()->policyMapSm("edge");
  EXPECT_EQ(sm->commonData()->policyRewrite(), 0u);
  EXPECT_EQ(classData("edge", "local")->updateAclActions(), 1u);
}

}  // namespace
}  // namespace waymark::test
