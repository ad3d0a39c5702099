// The iptables side's own costs, with no kernel: rendering and composing the
// two rule lines of one sub-rule (addRule into a queue nobody drains), and
// enqueueing and dequeueing queue elements.
#include <benchmark/benchmark.h>

#include <string>

#include "iptables/AclHelper.h"
#include "plugin/ClassCommonData.h"
#include "policymap/AclRuleParser.h"

namespace {

class NullWriter : public AclUtils::IptablesWriter {
 public:
  std::optional<AclUtils::IptablesWriteResult> write(Acl::AclType, const std::string&) override {
    return AclUtils::IptablesWriteResult{};
  }
};

void BM_AddRulePerSubRule(benchmark::State& state) {
  NullWriter writer;
  const auto manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  const auto helper = Pbr::Iptables::aclHelperFactory(manager);
  helper->iptablesWriterIs(&writer);
  helper->hwInit();
  // Rule lines wait in the queue: park its drain.
  helper->aclTypeData(PolicyMap::matchIpv4)->ruleProgrammingTimeLimitIs(0.0);
  auto config = Vix::make<Acl::Config>();
  auto list = Vix::make<Acl::AccessList>("web", false);
  Acl::AccessList::Rules rules;
  auto rule = Acl::AclRuleParser::parse("10 permit tcp 10.0.0.0/8 any eq 80 443 syn", false);
  rules.emplace(10, rule);
  list->rulesIs(rules);
  config->accessListIs(list);
  const auto policy =
      Vix::make<PolicyMap::PolicyMapSmCommonData>(PolicyMap::PolicyMapSmKey("edge"));
  const auto web = Vix::make<Pbr::ClassCommonData>(
      "web", Vix::make<PolicyMap::ClassMapSubConfig>("web", std::vector<std::string>{"web"}),
      config);
  helper->createPolicy(policy, PolicyMap::matchIpv4);
  const PolicyMap::AclRuleKey key(policy->key(), PolicyMap::matchIpv4, "web", "web", 10);
  for (auto _ : state) {
    helper->addRule(key, {Acl::TcpFlag::syn}, policy, web);  // "-R" after the first
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AddRulePerSubRule);

void BM_QueueEnqueueDequeue(benchmark::State& state) {
  NullWriter writer;
  Pbr::Iptables::AclTypeData data(PolicyMap::matchIpv4, &writer);
  data.ruleProgrammingTimeLimitIs(0.0);
  const std::string line = "-A PBR_1_edge -p tcp -m tcp --dport 80 -j ACCEPT\n";
  for (auto _ : state) {
    for (int i = 0; i < 1000; ++i) data.iptablesOperationEnq(line);
    for (int i = 0; i < 1000; ++i) benchmark::DoNotOptimize(data.iptablesOperationDeq());
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_QueueEnqueueDequeue);

}  // namespace
