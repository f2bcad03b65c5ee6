// The VLAN-domain service: which domains it allots, and how the report shows the requests.

#include <gtest/gtest.h>

#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/report/Report.h"
#include "kiln/agent/scenario/Scenario.h"
#include "tests/Lines.h"

namespace KilnTest {
namespace {

using KilnAgent::VlanDomainService;
using Interface = VlanDomainService::Interface;

class VlanDomains : public testing::Test {
 protected:
  void ask(std::uint64_t intfId, std::uint16_t systemTcamId = 0) {
    service.config()->configIs({intfId, systemTcamId});
  }
  /// The domain of an interface once nothing is pending; -1 for none.
  int domainOf(std::uint64_t intfId, std::uint16_t systemTcamId = 0) {
    scheduler->runUntilIdle();
    const auto domain = service.status()->status().get({intfId, systemTcamId});
    return domain ? int{*domain} : -1;
  }

  KilnPlatform::Ref<KilnAgent::CooperativeScheduler> scheduler =
      std::make_shared<KilnAgent::CooperativeScheduler>();
  VlanDomainService service{scheduler, {1, 3}};
};

TEST_F(VlanDomains, SystemTcamsShareAPoolByDefault) {
  ask(1, 0);
  ask(1, 1);
  EXPECT_EQ(1, domainOf(1, 0));
  EXPECT_EQ(2, domainOf(1, 1));
  service.limitsAre({1, 3, true});
  ask(2, 1);
  EXPECT_EQ(1, domainOf(2, 1)) << "free in its own pool";
  service.limitsAre({1, 3, false});
  ask(3, 0);
  ask(4, 1);
  EXPECT_EQ(3, domainOf(3, 0));
  EXPECT_EQ(-1, domainOf(4, 1));
  service.config()->configDel({1, 0});
  EXPECT_EQ(-1, domainOf(4, 1)) << "interface 2 has the same domain as interface 1 had";
  service.config()->configDel({2, 1});
  EXPECT_EQ(1, domainOf(4, 1));
}

TEST_F(VlanDomains, RequestsCanBeServedInsideTheCall) {
  service.insideCallIs(true);
  for (const std::uint64_t intfId : {1U, 2U, 3U, 4U}) ask(intfId);
  EXPECT_EQ(3, service.status()->status().get({3, 0}).value_or(0));
  EXPECT_EQ(1U, service.waiting());
  service.config()->configDel({2, 0});
  EXPECT_EQ(2, service.status()->status().get({4, 0}).value_or(0));
}

TEST_F(VlanDomains, JoinedGroupsGetTheDomainOfTheJoinedSide) {
  ask(1);
  ask(2);
  ask(3);
  ask(4);
  ASSERT_EQ(-1, domainOf(4));
  service.share(4, 5, 0);
  EXPECT_EQ(-1, domainOf(4)) << "neither has one";
  service.share(1, 2, 0);
  EXPECT_EQ(2, domainOf(1));
  EXPECT_EQ(1, domainOf(4)) << "the one that interface 1 had is free";
  service.share(4, 1, 0);
  for (const std::uint64_t intfId : {1U, 2U, 4U}) EXPECT_EQ(2, domainOf(intfId)) << intfId;
  ask(5);
  EXPECT_EQ(2, domainOf(5));
  EXPECT_EQ(service.sharesWith({1, 0}), service.sharesWith({5, 0}));
}

TEST_F(VlanDomains, JoiningMovesOnlyTheNewMember) {
  struct Counter final : KilnAgent::VlanDomainObserver {
    void handleDomainChange(const KilnAgent::VlanDomainChange& /*change*/) override { ++changes; }
    std::uint64_t changes = 0;
  } counter;
  constexpr std::uint64_t kInterfaces = 2000;
  service.observerIs(&counter);
  for (std::uint64_t intfId = 1; intfId < kInterfaces; ++intfId) service.share(intfId, intfId + 1, 0);
  EXPECT_LT(counter.changes, 3 * kInterfaces);
}

TEST(VlanDomainReport, CountsRequestsWithoutADomainAndConflictsBetweenInterfaces) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  const auto publish = [&](const char* feature, int intfId) {
    scenario.runLine(untaggedLine("publish", feature, intfId));
  };
  scenario.runLine(R"({"op":"vlanDomains","mode":"manual"})");
  for (const int intfId : {1, 2, 3, 4}) publish("mpls", intfId);
  publish("bridging", 3);
  for (const int intfId : {1, 2}) {
    scenario.runLine(fmt::format(R"({{"op":"allot","intfId":{},"systemTcamId":0,"vlanDomain":7}})", intfId));
  }
  scenario.runLine(R"({"op":"allot","intfId":3,"systemTcamId":0,"vlanDomain":8})");
  scenario.settle();
  const std::string report = KilnAgent::reportText(agent, scenario.counters(), 10);
  EXPECT_NE(std::string::npos, report.find("3 allotted, 1 requests waiting")) << report;
  EXPECT_NE(std::string::npos,
            report.find("Conflicts: 2 hardware keys, 1 of them between features, 1 between interfaces"))
      << report;
}

}  // namespace
}  // namespace KilnTest
