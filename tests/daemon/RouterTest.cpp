// The router core's start and control requests, on virtual time, with a
// kernel that records.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

const std::string kConfig = R"(access-lists:
  web: [permit tcp any any eq 80]
class-maps:
  web: [web]
policy-maps:
  edge:
    - class: web
      nexthops: [192.0.2.1]
interfaces:
  eth1: edge
)";

class RouterTest : public PbrSystemTest {
 protected:
  RouterTest() { address("eth1", "192.0.2.254/24"); }
  nlohmann::json status() { return ask({{"command", "status"}}); }
  // Starts with kConfig and runs until idle, forgetting what the start wrote.
  void started() {
    startRouter(kConfig);
    ASSERT_TRUE(runUntilIdle());
    runner.take();
    writer.clear();
  }
  std::string commands() const { return ::testing::PrintToString(runner.commands); }
};

TEST_F(RouterTest, TheStartProgramsNexthopsThenWritesRulesThenRemovesLeftovers) {
  startRouter(kConfig);
  EXPECT_EQ(status()["startup"]["phase"], "programming nexthops");
  EXPECT_FALSE(ask({{"command", "idle"}})["idle"]);
  // The rules are written while the writer still has the start's
  // transaction on its way.
  kernel.busy = true;
  for (int i = 0; i < 1000 && router.phase() != Waymark::StartupPhase::writingRules; ++i) {
    router.turn();
  }
  EXPECT_EQ(status()["startup"]["phase"], "writing rules");
  EXPECT_EQ(kernel.nexthopsProgrammedCalls, 1);
  EXPECT_EQ(kernel.rulesWrittenCalls, 0);
  ASSERT_FALSE(runUntilIdle());
  kernel.busy = false;
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(kernel.rulesWrittenCalls, 1);
  const auto s = status();
  EXPECT_EQ(s["startup"]["phase"], "running");
  EXPECT_EQ(s["startup"]["nexthopsProgrammed"], 1);
  EXPECT_FALSE(s["daemon"]["startingUp"]);
  // The nexthop was programmed, and the policy's rules mark for it.
  ASSERT_FALSE(runner.commands.empty());
  EXPECT_EQ(runner.commands.back(), "ip rule add priority 2 fwmark 2 lookup 2") << commands();
  bool marked = false;
  for (const auto& line : writer.lines(Acl::aclTypeIpv4)) {
    marked = marked || line.find("-j MARK --set-mark 0x2") != std::string::npos;
  }
  EXPECT_TRUE(marked);
}

TEST_F(RouterTest, TheStatusDescribesTheRouterItself) {
  address6("eth1", "2001:db8::fe/64");
  started();
  clock.advance(5);
  const auto s = status();
  EXPECT_TRUE(s["idle"]);
  EXPECT_EQ(s["version"], WAYMARK_VERSION);
  EXPECT_GE(s["uptime"].get<double>(), 5.0);
  EXPECT_EQ(s["daemon"]["config"], configFile);
  EXPECT_EQ(s["daemon"]["commandExecutor"], "netlink");
  EXPECT_EQ(s["interfaces"]["eth1"], nlohmann::json::array({"192.0.2.254/24", "2001:db8::fe/64"}));
  EXPECT_TRUE(s["daemon"]["writerIdle"]);
}

TEST_F(RouterTest, EachClassShowsItsWholeListAndEachNexthopItsInterface) {
  address("eth2", "198.51.100.254/24");
  std::string text = kConfig;
  text.replace(text.find("[192.0.2.1]"), 11, "[198.51.100.9, 192.0.2.1, 203.0.113.1]");
  startRouter(text);
  ASSERT_TRUE(runUntilIdle());
  const auto s = status();
  const auto& web = s["policies"][0]["classes"][0];
  EXPECT_EQ(web["nexthop"], "198.51.100.9");
  EXPECT_EQ(web["nexthopList"], nlohmann::json::parse(R"([
    {"address": "198.51.100.9", "inUse": true},
    {"address": "192.0.2.1", "inUse": false},
    {"address": "203.0.113.1", "inUse": false}])"));
  std::map<std::string, nlohmann::json> interfaceOf;
  for (const auto& n : s["nexthops"]) interfaceOf[n["address"]] = n["interface"];
  EXPECT_EQ(interfaceOf["198.51.100.9"], "eth2");
  EXPECT_EQ(interfaceOf["192.0.2.1"], "eth1");
  EXPECT_TRUE(interfaceOf["203.0.113.1"].is_null());
}

TEST_F(RouterTest, ARefusedReloadChangesNothingAndSaysWhy) {
  started();
  writeConfig("policy-maps:\n  edge:\n    - class: nowhere\n");
  const auto reply = ask({{"command", "reload"}});
  EXPECT_FALSE(reply["ok"]);
  EXPECT_NE(reply["error"].get<std::string>().find("nowhere"), std::string::npos) << reply;
  ASSERT_TRUE(runUntilIdle());
  EXPECT_TRUE(runner.commands.empty()) << commands();
  EXPECT_TRUE(writer.batches.empty());
  const auto s = status();
  EXPECT_EQ(s["daemon"]["reloads"], 1);
  EXPECT_EQ(s["daemon"]["reloadsFailed"], 1);
  EXPECT_EQ(s["daemon"]["lastReloadError"], reply["error"]);
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
}

TEST_F(RouterTest, AnAcceptedReloadAppliesOnlyTheDifference) {
  started();
  std::string text = kConfig;
  text.replace(text.find("192.0.2.1]"), 9, "192.0.2.7");
  writeConfig(text);
  const auto reply = ask({{"command", "reload"}});
  EXPECT_TRUE(reply["ok"]) << reply;
  EXPECT_EQ(reply["planText"], "policies changed: edge; classes changed: edge/web");
  ASSERT_TRUE(runUntilIdle());
  bool added = false;
  for (const auto& c : runner.commands) {
    added = added || c.find("via 192.0.2.7") != std::string::npos;
  }
  EXPECT_TRUE(added) << commands();
  const auto s = status();
  EXPECT_EQ(s["daemon"]["reloads"], 1);
  EXPECT_EQ(s["daemon"]["reloadsFailed"], 0);
  EXPECT_EQ(s["daemon"]["lastReloadError"], "");
}

TEST_F(RouterTest, AReloadToNexthopsTheJournalCannotRecordChangesNothing) {
  started();
  kernel.recordError = "cannot write state.json.tmp: No space left on device";
  std::string text = kConfig;
  text.replace(text.find("192.0.2.1]"), 9, "192.0.2.7");
  writeConfig(text);
  const auto refused = ask({{"command", "reload"}});
  EXPECT_FALSE(refused["ok"]);
  EXPECT_EQ(refused["error"],
            "cannot record new nexthops in the state journal: " + kernel.recordError);
  ASSERT_TRUE(runUntilIdle());
  EXPECT_TRUE(runner.commands.empty()) << commands();
  EXPECT_TRUE(writer.batches.empty());

  // Nothing new to record: the journal is not in the way.
  text = kConfig;
  text.replace(text.find("eq 80"), 5, "eq 81");
  writeConfig(text);
  EXPECT_TRUE(ask({{"command", "reload"}})["ok"]);
}

TEST_F(RouterTest, ANexthopTheJournalCannotRecordSaysSoUntilItIsRecorded) {
  kernel.unrecordedNexthops.insert(Velnet::IpGenAddr::parse("192.0.2.1"));
  runner.statusIs("ip route add", exitStatus(2));
  startRouter(kConfig);
  runUntilIdle();
  EXPECT_EQ(status()["nexthops"][0]["state"], Waymark::Reason::kNotRecorded);
  const auto reply = ask({{"command", "events"}});
  ASSERT_EQ(reply["events"].size(), 1u) << reply;
  EXPECT_EQ(reply["events"][0]["text"],
            "nexthop 192.0.2.1 not programmed: the state journal cannot record it; programmed "
            "once it can");
}

TEST_F(RouterTest, TheStartIsNotReadyUntilItsRulesAreWrittenAndTriesAgainUntilThey) {
  const std::string refused = "iptables-restore: line 2 failed [failing line: -F]";
  writer.refuseIs("*mangle");
  startRouter(kConfig);
  for (int pass = 0; pass < 1000; ++pass) router.turn();
  EXPECT_FALSE(router.idle());
  auto startup = status()["startup"];
  EXPECT_EQ(startup["phase"], "writing rules");
  EXPECT_EQ(startup["writeError"], refused);
  EXPECT_EQ(startup["nextWriteIn"], 1.0);

  // Refused again: the next attempt waits longer.
  clock.advance(1.0);
  for (int pass = 0; pass < 1000; ++pass) router.turn();
  startup = status()["startup"];
  EXPECT_EQ(startup["writeAttempts"], 2);
  EXPECT_EQ(startup["nextWriteIn"], 2.0);

  writer.refuseIs("");
  clock.advance(2.0);
  ASSERT_TRUE(runUntilIdle());
  startup = status()["startup"];
  EXPECT_EQ(startup["phase"], "running");
  EXPECT_EQ(startup["writeError"], "");
  std::vector<std::string> retries;
  const auto events = ask({{"command", "events"}});
  for (const auto& e : events["events"]) {
    if (e["kind"] == "start-retry") retries.push_back(e["text"]);
  }
  EXPECT_EQ(retries,
            (std::vector<std::string>{"the start's rules could not be written (" + refused +
                                          "); not ready, writing them again in 1 s",
                                      "mangle tables could not be rebuilt: " + refused,
                                      "the start's rules could not be written (" + refused +
                                          "); not ready, writing them again in 2 s",
                                      "mangle tables rebuilt in place, one transaction per family",
                                      "the start's rules are written, at attempt 3"}))
      << events;
}

TEST_F(RouterTest, SetChangesOneTunableAndRefusesWhatIsOutOfRange) {
  started();
  auto reply = ask({{"command", "set"}, {"tunable", "command-executor"}, {"value", "shell"}});
  EXPECT_TRUE(reply["ok"]) << reply;
  EXPECT_EQ(status()["daemon"]["commandExecutor"], "shell");
  EXPECT_EQ(kernel.executors.back(), Waymark::CommandExecutor::shell);

  reply = ask({{"command", "set"}, {"tunable", "rules-per-invocation"}, {"value", "0"}});
  EXPECT_FALSE(reply["ok"]);
  EXPECT_NE(reply["error"].get<std::string>().find("from 1 to"), std::string::npos) << reply;
  reply = ask({{"command", "set"}, {"tunable", "speed"}, {"value", "1"}});
  EXPECT_FALSE(reply["ok"]);
  EXPECT_NE(reply["error"].get<std::string>().find("unknown tunable"), std::string::npos);
  EXPECT_EQ(router.model().tunables.rulesPerInvocation, Waymark::Tunables().rulesPerInvocation);
}

TEST_F(RouterTest, IdleTakesInWhatTheKernelReportedBeforeAnswering) {
  started();
  EXPECT_TRUE(ask({{"command", "idle"}})["idle"]);
  EXPECT_EQ(kernel.catchUps, 1);
  // A change the kernel reported and nobody has read yet: a nexthop whose
  // subnet goes away is work to do.
  address("eth1", "");
  EXPECT_FALSE(ask({{"command", "idle"}})["idle"]);
  ASSERT_TRUE(runUntilIdle());
  EXPECT_TRUE(ask({{"command", "idle"}})["idle"]);
}

TEST_F(RouterTest, EachClassCountsWhatTheFirstRuleOfEachOfItsPairsSaw) {
  std::string text = kConfig;
  text.replace(text.find("  web: [permit tcp any any eq 80]"), 33,
               "  web: [permit tcp any any eq 80, permit tcp any any eq 443]\n"
               "  dns: [permit udp any any eq 53]");
  text.replace(text.find("  web: [web]"), 12, "  web: [web]\n  dns: [dns]");
  text.replace(text.find("interfaces:"), 11,
               "    - class: dns\n      passthrough: true\ninterfaces:");
  startRouter(text);
  ASSERT_TRUE(runUntilIdle());
  // Pairs: web port 80 at 1-2, web port 443 at 3-4, dns at 5-6.
  kernel.counters[0][chain("edge")] = {{10, 1000}, {10, 1000}, {5, 700},
                                       {5, 700},   {2, 90},    {2, 90}};
  const auto reply = ask({{"command", "counters"}});
  EXPECT_EQ(reply["classes"], nlohmann::json::parse(R"([
    {"policy": "edge", "family": "ipv4", "class": "web", "packets": 15, "bytes": 1700},
    {"policy": "edge", "family": "ipv4", "class": "dns", "packets": 2, "bytes": 90}])"));
  EXPECT_TRUE(reply["counters"].contains("nexthops"));
}

TEST_F(RouterTest, CountersAskedWhileTheirReadBackIsOnItsWayShareIt) {
  startRouter(kConfig);
  ASSERT_TRUE(runUntilIdle());
  ask({{"command", "counters"}});
  const int oneReadBack = kernel.counterReads;
  ASSERT_GT(oneReadBack, 0);
  std::vector<nlohmann::json> replies;
  for (int i = 0; i < 3; ++i) {
    router.handle({{"command", "counters"}},
                  [&replies](const nlohmann::json& r) { replies.push_back(r); });
  }
  router.drainBackground();
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0]["classes"], replies[2]["classes"]);
  EXPECT_EQ(kernel.counterReads, 2 * oneReadBack);
}

TEST_F(RouterTest, EventsTellWhatChangedAndWhyAndGoToTheLog) {
  std::string text = kConfig;
  text.replace(text.find("[192.0.2.1]"), 11, "[192.0.2.1, 198.51.100.9]");
  address("eth2", "198.51.100.254/24");
  startRouter(text);
  ASSERT_TRUE(runUntilIdle());
  address("eth1", "");
  ASSERT_TRUE(runUntilIdle());
  writeConfig("nonsense: 1\n");
  reload();
  std::vector<std::string> texts;
  const auto reply = ask({{"command", "events"}});
  for (const auto& e : reply["events"]) {
    EXPECT_EQ(e["time"].get<std::string>().size(), 20u) << e;
    texts.push_back(e["kind"].get<std::string>() + ": " + e["text"].get<std::string>());
  }
  const std::vector<std::string> expected = {
      "nexthop-programmed: nexthop 192.0.2.1 programmed (table 2, mark 2)",
      "nexthop-programmed: nexthop 198.51.100.9 programmed (table 3, mark 3)",
      "class-nexthop: policy edge class web: nexthop none -> 192.0.2.1",
      "nexthop-withdrawn: nexthop 192.0.2.1 withdrawn: outside every connected subnet",
      "warning: nexthop 192.0.2.1 is outside every connected subnet",
      "class-nexthop: policy edge class web: nexthop 192.0.2.1 -> 198.51.100.9",
      "reload-refused: reload refused, nothing changed: " + configFile +
          ":1:1: unknown key 'nonsense' in the configuration"};
  EXPECT_EQ(texts, expected) << reply;
  EXPECT_EQ(logged.size(), expected.size());
}

TEST_F(RouterTest, ExplainNamesTheClassRuleAndNexthopAndAsksTheKernelWithTheMark) {
  std::string text = kConfig;
  text.replace(text.find("[192.0.2.1]"), 11, "[198.51.100.9, 192.0.2.1]");
  started();
  writeConfig(text);
  ask({{"command", "reload"}});
  ASSERT_TRUE(runUntilIdle());
  const nlohmann::json web = {{"command", "explain"}, {"in", "eth1"},        {"proto", "tcp"},
                              {"src", "203.0.113.7"}, {"dst", "192.0.2.80"}, {"dport", 80}};
  auto reply = ask(web);
  EXPECT_EQ(reply["policy"], "edge");
  EXPECT_EQ(reply["class"], "web");
  EXPECT_EQ(reply["rule"], "web 10 permit tcp any any eq 80");
  // The first nexthop has no connected subnet: the second is in use.
  EXPECT_EQ(reply["nexthop"], "192.0.2.1");
  EXPECT_EQ(reply["nexthopState"], "programmed");
  EXPECT_EQ(reply["fwmark"], 2);
  EXPECT_EQ(reply["table"], 2);
  EXPECT_EQ(reply["kernelRoute"], "lookup 192.0.2.80 from 203.0.113.7 iif eth1 mark 2");

  auto other = web;
  other["dport"] = 8080;
  reply = ask(other);
  EXPECT_EQ(reply["policy"], "edge");
  EXPECT_TRUE(reply["class"].is_null());
  EXPECT_TRUE(reply["nexthop"].is_null());
  EXPECT_EQ(reply["kernelRoute"], "lookup 192.0.2.80 from 203.0.113.7 iif eth1 mark 0");

  address("eth1", "");
  ASSERT_TRUE(runUntilIdle());
  reply = ask(web);
  EXPECT_EQ(reply["class"], "web");
  EXPECT_TRUE(reply["nexthop"].is_null());
  EXPECT_EQ(reply["nexthopState"], "198.51.100.9: outside every connected subnet");
}

TEST_F(RouterTest, ExplainRefusesWhatIsNotAPacket) {
  started();
  const nlohmann::json good = {{"command", "explain"},
                               {"in", "eth1"},
                               {"proto", "udp"},
                               {"src", "203.0.113.7"},
                               {"dst", "192.0.2.80"}};
  EXPECT_TRUE(ask(good)["ok"]);
  auto bad = good;
  bad["dst"] = "2001:db8::1";
  EXPECT_EQ(ask(bad)["error"], "--src and --dst must be addresses of one family");
  bad = good;
  bad["proto"] = "gre2";
  EXPECT_FALSE(ask(bad)["ok"]);
  bad = good;
  bad["dport"] = 65536;
  EXPECT_EQ(ask(bad)["error"], "--dport must be a port from 0 to 65535");
  bad = good;
  bad["tcpFlags"] = "syn,bogus";
  EXPECT_EQ(ask(bad)["error"], "unknown TCP flag 'bogus' (fin, syn, rst, psh, ack, urg)");
}

TEST_F(RouterTest, ANexthopTheKernelRefusesIsAnEvent) {
  runner.statusIs("ip route add", exitStatus(2));
  startRouter(kConfig);
  runUntilIdle();
  const auto reply = ask({{"command", "events"}});
  std::vector<std::string> texts;
  for (const auto& e : reply["events"]) texts.push_back(e["text"]);
  EXPECT_EQ(texts, (std::vector<std::string>{
                       "nexthop 192.0.2.1 not programmed: the kernel refused its route or rule"}));
}

TEST_F(RouterTest, TheStatusWarnsOfWhatCannotWorkInTheFileAndAtRunTime) {
  std::string text = kConfig + "  eth3: edge\n";
  text.replace(text.find("class-maps:"), 11, "class-maps:\n  spare: [web]");
  startRouter(text);
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(status()["warnings"], nlohmann::json::array({
                                      configFile + ":4: warning: class 'spare' is in no policy",
                                      "interface eth3 applies policy edge but does not exist",
                                  }));
  address("eth3", "203.0.113.1/24");
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(status()["warnings"].size(), 1u);
}

// The batches' lines of IPv4 since the last clear, and the events' texts.
class RouterRebuildTest : public RouterTest {
 protected:
  std::vector<std::string> lines() const { return writer.lines(Acl::aclTypeIpv4); }
  std::vector<std::string> eventTexts() {
    const auto reply = ask({{"command", "events"}});
    std::vector<std::string> out;
    for (const auto& e : reply["events"]) out.push_back(e["text"]);
    return out;
  }
  bool hasEvent(const std::string& text) {
    const auto texts = eventTexts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
  }
};

TEST_F(RouterRebuildTest, AMangleDriftProgramsEveryPolicyAgainBehindTheDispatchSetUp) {
  started();
  kernel.mangleDrift = "IPv4: chain(s) missing: PBR_1_edge";
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(kernel.rebuildsBegun, 1);
  EXPECT_EQ(kernel.rebuildsCommitted, 1);
  EXPECT_EQ(kernel.rebuildErrors, std::vector<std::string>{""});
  const auto written = lines();
  ASSERT_GE(written.size(), 7u) << ::testing::PrintToString(written);
  EXPECT_EQ(std::vector<std::string>(written.begin(), written.begin() + 4),
            (std::vector<std::string>{"-F", "-X", "-N TAMBRO_PBR_INTF",
                                      "-I PREROUTING -j TAMBRO_PBR_INTF"}));
  // The policy is created afresh (a chain that is gone cannot be flushed),
  // with its jump and its rules marking for the nexthop.
  const std::string created = written[4];
  ASSERT_EQ(created.rfind("-N PBR_", 0), 0u) << created;
  const std::string chain = created.substr(3);
  EXPECT_EQ(written[5], "-A TAMBRO_PBR_INTF -i eth1 -j " + chain);
  EXPECT_EQ(written[6].rfind("-A " + chain + " ", 0), 0u);
  EXPECT_NE(written[6].find("-j MARK --set-mark 0x2"), std::string::npos);
  // The nexthop keeps its table and rule: no routing command.
  EXPECT_TRUE(runner.commands.empty()) << commands();
  EXPECT_TRUE(hasEvent("IPv4: chain(s) missing: PBR_1_edge"));
  EXPECT_TRUE(hasEvent("mangle tables rebuilt in place, one transaction per family"));
  EXPECT_EQ(status()["daemon"]["mangleRebuilds"], 1);
}

TEST_F(RouterRebuildTest, NothingIsComparedWhileWaymarksOwnWritesAreOnTheirWay) {
  started();
  kernel.busy = true;
  kernel.mangleDrift = "IPv4: rules changed in PBR_1_edge";
  for (int i = 0; i < 50; ++i) router.turn();
  EXPECT_EQ(kernel.rebuildsBegun, 0);
  kernel.busy = false;
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(kernel.rebuildsBegun, 1);
}

TEST_F(RouterRebuildTest, ResyncRebuildsComparesRoutingAndIsDoneWhenIdle) {
  started();
  EXPECT_TRUE(ask({{"command", "resync"}})["ok"]);
  EXPECT_FALSE(ask({{"command", "idle"}})["idle"]);
  EXPECT_TRUE(status()["daemon"]["mangleRebuilding"]);
  EXPECT_EQ(kernel.driftSuspicions, 1);
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(kernel.rebuildsCommitted, 1);
  EXPECT_EQ(lines().front(), "-F");
  EXPECT_TRUE(hasEvent("mangle tables rebuilt in place, one transaction per family"));
  EXPECT_FALSE(status()["daemon"]["mangleRebuilding"]);
}

TEST_F(RouterRebuildTest, ARefusedRebuildIsReportedAndLeftToTheNextComparison) {
  started();
  writer.refuseIs("-N PBR_");
  kernel.mangleDrift = "IPv4: waymark's chains and the dispatch jump are gone";
  ASSERT_TRUE(runUntilIdle());
  ASSERT_EQ(kernel.rebuildErrors.size(), 1u);
  EXPECT_EQ(kernel.rebuildErrors[0].rfind("iptables-restore: line 2 failed", 0), 0u);
  EXPECT_TRUE(hasEvent("mangle tables could not be rebuilt: " + kernel.rebuildErrors[0]));
}

TEST_F(RouterTest, AnUnknownCommandIsRefusedByName) {
  started();
  const auto reply = ask({{"command", "restart"}});
  EXPECT_FALSE(reply["ok"]);
  EXPECT_EQ(reply["error"], "unknown command 'restart'");
}

}  // namespace
}  // namespace waymark::test
