// Composers and the VLAN-domain resolver, connected as in the server.
#include "kiln/compose/ComposerSm.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "kiln/agent/platform/Collections.h"
#include "kiln/compose/EsemFodoVdComposerSm.h"
#include "kiln/compose/Isem1TagComposerSm.h"
#include "kiln/compose/Isem2TagComposerSm.h"
#include "kiln/compose/ResolverVd.h"
#include "kiln/compose/UntaggedComposerSm.h"
#include "kiln/status/ResolvedKeyStatusSm.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;  // NOLINT: the keys are its only content here
using Tag = EmComposerKeyUnionTag;
using Interface = IntfIdSystemTcamId;
using HwState = EmHwKeyStatus::State;
using KeyState = EmLogicalKeyState::State;

constexpr Tag kUntagged = Tag::isemUntaggedEntryKey;
constexpr Tag k1Tag = Tag::isem1TagEntryKey;
constexpr Tag k2Tag = Tag::isem2TagEntryKey;
constexpr Tag kFodoVd = Tag::esemFodoVdEntryKey;

ResolverKey vd(const Interface& interface) {
  return VdResolverKey{interface};
}

/// The state that outlives a server: the VLAN-domain service's two collections.
struct DomainService {
  Ref<KilnVlanDomain::VlanDomainConfig> config =
      std::make_shared<KilnVlanDomain::VlanDomainConfig>(KilnAgent::makeCollection<Interface, Unit>());
  Ref<KilnVlanDomain::VlanDomainStatus> status = std::make_shared<KilnVlanDomain::VlanDomainStatus>(
      KilnAgent::makeCollection<Interface, std::uint16_t>());
};

/// One composer with the collections around it.
struct ComposerSide {
  explicit ComposerSide(Tag type)
      : config(std::make_shared<EmLogicalKeyConfig>(type)),
        keys(std::make_shared<SwTableKeyConfig>(type)),
        status(std::make_shared<ResolvedKeyStatus>(type)),
        failure(std::make_shared<EmComposeFailure>(type)) {}
  Ref<EmLogicalKeyConfig> config;
  Ref<SwTableKeyConfig> keys;
  Ref<ResolvedKeyStatus> status;
  Ref<EmComposeFailure> failure;
  Ref<ComposerSm> composer;
};

class Composing {
 public:
  explicit Composing(DomainService& service, std::uint32_t yieldEvery = 0)
      : bench(yieldEvery), service_(service) {
    for (const Tag type : {kUntagged, k1Tag, k2Tag, kFodoVd}) sides.emplace(type, ComposerSide(type));
  }

  void startResolver() {
    resolver = bench.create([&] {
      return resolverVdFactory(configDir->resolverConfigIs(ResolverKeyUnionTag::vd),
                               statusDir->resolverStatusIs(ResolverKeyUnionTag::vd), service_.config,
                               service_.status, "resolver", bench.status, bench.control());
    });
    bench.settle();
    ASSERT_TRUE(bench.completed("resolver"));
  }
  void startComposers() {
    create<UntaggedComposerSm>(kUntagged, untaggedComposerSmFactory);
    create<Isem1TagComposerSm>(k1Tag, isem1TagComposerSmFactory);
    create<Isem2TagComposerSm>(k2Tag, isem2TagComposerSmFactory);
    create<EsemFodoVdComposerSm>(kFodoVd, esemFodoVdComposerSmFactory);
  }
  void start() {
    startResolver();
    startComposers();
    bench.settle();
    for (const auto& [type, side] : sides) ASSERT_TRUE(bench.completed(side.composer->name()));
    resolver->sweep();
  }

  ComposerSide& sideOf(const EmLogicalKey& key) { return sides.at(key.emComposerKey.tag()); }
  void request(const EmLogicalKey& key) { sideOf(key).config->requestIs(key); }
  void withdraw(const EmLogicalKey& key) { sideOf(key).config->requestDel(key); }
  std::optional<EmHwKey> composed(const EmLogicalKey& key) {
    return sideOf(key).keys->emLogicalKeyToResolvedKey(key);
  }
  std::optional<std::string> failure(const EmLogicalKey& key) { return sideOf(key).failure->failure(key); }
  std::optional<KeyState> state(const EmLogicalKey& key) {
    const auto state = sideOf(key).composer->emLogicalKeyState(key);
    return state ? std::optional(state->state) : std::nullopt;
  }
  /// Sets the hardware's outcome for the key's present hardware key.
  void outcome(const EmLogicalKey& key, HwState state = HwState::hwSuccess) {
    sideOf(key).status->resolvedKeyStatusIs({key, composed(key).value(), state});
  }
  void outcomeDel(const EmLogicalKey& key) { sideOf(key).status->resolvedKeyStatusDel(key); }
  bool asked(const Interface& interface) const { return service_.config->config().has(interface); }
  void allot(const Interface& interface, std::uint16_t domain) {
    service_.status->status().is(interface, domain);
  }
  void revoke(const Interface& interface) { service_.status->status().del(interface); }
  bool inUse(const Interface& interface) const { return resolver->resolutionInUseHas(vd(interface)); }
  std::optional<ResolutionState> resolution(const Interface& interface) const {
    return resolver->resolverStatus().status().get(vd(interface));
  }

  /// The number of all entries that are kept in the stages and between them.
  std::size_t leftOver() const {
    std::size_t entries = localEntries(*resolver) + resolver->resolverStatus().status().size() +
                          service_.config->config().size();
    for (const auto& [type, side] : sides) {
      entries += localEntries(*side.composer) + side.composer->pendingCount() +
                 side.failure->failure().size() + side.keys->emLogicalKeyToResolvedKey().size();
      if (const auto requests = resolver->resolverConfig().resolverComposerConfig(type)) {
        entries += (*requests)->resolverRequest().size();
      }
    }
    return entries;
  }

  Bench bench;
  Ref<ResolverConfigDir> configDir = std::make_shared<ResolverConfigDir>();
  Ref<ResolverStatusDir> statusDir = std::make_shared<ResolverStatusDir>();
  std::map<Tag, ComposerSide> sides;
  Ref<ResolverVd> resolver;
  KeyTraces traces;

 private:
  template <class Composer, class Factory>
  void create(Tag type, Factory factory) {
    ComposerSide& side = sides.at(type);
    side.composer = bench.create([&]() -> Ref<ComposerSm> {
      return factory(side.config, side.keys, side.status, configDir, statusDir,
                     fmt::format("composer-{}", type), bench.status, bench.control(), side.failure, traces);
    });
  }

  DomainService& service_;
};

EmLogicalKey keyOf(const EmComposerKey& key, FeatureType feature = FeatureType::vpws) {
  return {feature, FapId::allFap(), LocalCoreId::all(), key};
}
EmLogicalKey untagged(const Interface& i) {
  return keyOf(IsemUntaggedComposerKey{i.intfId, i.systemTcamId});
}
EmLogicalKey oneTag(const Interface& i, std::uint16_t vlanId) {
  return keyOf(Isem1TagComposerKey{i.intfId, i.systemTcamId, vlanId});
}
EmLogicalKey twoTag(const Interface& i, std::uint16_t outer, std::uint16_t inner) {
  return keyOf(Isem2TagComposerKey{i.intfId, i.systemTcamId, outer, inner});
}
EmLogicalKey fodoVd(const Interface& i, std::uint32_t fodoId) {
  return keyOf(EsemFodoVdComposerKey{i.intfId, i.systemTcamId, fodoId});
}
EmHwKey hwKeyOf(const EmResolvedKey& key) {
  return {FapId::allFap(), LocalCoreId::all(), key};
}

constexpr Interface kPort{71, 3};
constexpr Interface kOther{72, 3};

class ComposerTest : public testing::Test {
 protected:
  DomainService service;
};

TEST_F(ComposerTest, ComposesHardwareKeysAndChecksFieldRanges) {
  Composing c(service);
  c.start();
  const EmLogicalKey badVlan = oneTag(kPort, 0x1000);
  const EmLogicalKey badInner = twoTag(kPort, 1, 0x1000);
  const EmLogicalKey badFodo = fodoVd(kPort, 0x40000);
  const std::vector<EmLogicalKey> good = {untagged(kPort), oneTag(kPort, 0xfff), twoTag(kPort, 5, 0xfff),
                                          fodoVd(kPort, 0x3ffff)};
  for (const auto& key : good) c.request(key);
  for (const auto& key : {badVlan, badInner, badFodo}) c.request(key);

  c.allot(kPort, 0x1ff);
  c.bench.settle();
  EXPECT_EQ(c.composed(good[0]), hwKeyOf(IsemUntaggedEntryKey{U9(0x1ff)}));
  EXPECT_EQ(c.composed(good[1]), hwKeyOf(Isem1TagEntryKey{U9(0x1ff), U12(0xfff)}));
  EXPECT_EQ(c.composed(good[2]), hwKeyOf(Isem2TagEntryKey{U9(0x1ff), U12(5), U12(0xfff)}));
  EXPECT_EQ(c.composed(good[3]), hwKeyOf(EsemFodoVdEntryKey{U18(0x3ffff), U11(0x1ff)}));
  EXPECT_EQ(c.failure(badFodo), "U18::value < 0 or > 0x0003ffff not allowed");

  // A wider domain: errors in the request's fields are reported first, and the egress key still composes.
  c.allot(kPort, 0x200);
  c.bench.settle();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(c.composed(good[i]), std::nullopt);
    EXPECT_EQ(c.failure(good[i]), "U9::value < 0 or > 0x01ff not allowed");
    EXPECT_EQ(c.state(good[i]), KeyState::resolutionFail);
  }
  EXPECT_EQ(c.failure(badVlan), "U12::value < 0 or > 0x0fff not allowed");
  EXPECT_EQ(c.failure(badInner), "U12::value < 0 or > 0x0fff not allowed");
  EXPECT_EQ(c.composed(good[3]), hwKeyOf(EsemFodoVdEntryKey{U18(0x3ffff), U11(0x200)}));
  EXPECT_EQ(c.resolution(kPort)->state, ResolutionState::resolutionSuccess_);

  c.allot(kPort, 0x800);
  c.bench.settle();
  EXPECT_EQ(c.failure(good[3]), "U11::value < 0 or > 0x07ff not allowed");
  // A key that waits has no compose failure.
  c.revoke(kPort);
  c.bench.settle();
  EXPECT_EQ(c.failure(good[3]), std::nullopt);
  EXPECT_EQ(c.state(good[3]), KeyState::resolutionPending);
  for (const auto& key : {badVlan, badInner, badFodo}) c.withdraw(key);
  for (const auto& key : good) c.withdraw(key);
  c.bench.settle();
  EXPECT_EQ(c.leftOver(), 0u);
}

TEST_F(ComposerTest, ARequestHasAResolutionWhenTheCallReturns) {
  service.status->status().is(kPort, 9);
  Composing c(service);
  c.startResolver();
  EXPECT_EQ(c.resolution(kPort), std::nullopt) << "a domain that nobody asks for resolves nothing";
  const auto requests =
      c.configDir->resolverConfigIs(ResolverKeyUnionTag::vd)->resolverComposerConfigIs(k1Tag);
  requests->resolverRequestIs({vd(kPort), ResolverRequest::RequestType::resourceRequest, 0, 0});
  EXPECT_EQ(c.resolution(kPort), (ResolutionState{vd(kPort), ResolutionState::resolutionSuccess_, 9}));
  requests->resolverRequestIs({vd(kOther), ResolverRequest::RequestType::resourceRequest, 0, 0});
  EXPECT_EQ(c.resolution(kOther), (ResolutionState{vd(kOther), ResolutionState::resolutionPending_, 0}));
  c.resolver->sweep();
  requests->resolverRequestDel(vd(kPort));
  EXPECT_EQ(c.resolution(kPort), std::nullopt) << "though the service still reports its domain";
  EXPECT_FALSE(c.asked(kPort));
  EXPECT_TRUE(c.asked(kOther));
}

TEST_F(ComposerTest, AcknowledgesWhenEveryOutcomeOfTheCurrentDomainIsKnown) {
  Composing c(service);
  c.start();
  const EmLogicalKey a = oneTag(kPort, 1), b = oneTag(kPort, 2);
  c.request(a);
  c.request(b);
  c.allot(kPort, 10);
  c.bench.settle();
  EXPECT_EQ(c.state(a), KeyState::hwPending);
  c.outcome(a);
  c.bench.settle();
  EXPECT_EQ(c.state(a), KeyState::hwSuccess);
  EXPECT_FALSE(c.inUse(kPort));
  c.outcome(b, HwState::hwFail);
  c.bench.settle();
  EXPECT_EQ(c.state(b), KeyState::hwFail);
  EXPECT_TRUE(c.inUse(kPort));

  // Another domain: outcomes for the old hardware keys do not count, and do not release.
  c.allot(kPort, 11);
  c.bench.settle();
  EXPECT_FALSE(c.inUse(kPort));
  c.sideOf(a).status->resolvedKeyStatusIs({a, hwKeyOf(Isem1TagEntryKey{U9(10), U12(1)}), HwState::hwFail});
  c.bench.settle();
  EXPECT_EQ(c.state(a), KeyState::hwPending);
  c.outcome(a);
  c.bench.settle();
  EXPECT_FALSE(c.inUse(kPort));
  // The outcome moves to another hardware key: the composed one has none any more.
  c.sideOf(a).status->resolvedKeyStatusIs({a, c.composed(b).value(), HwState::hwSuccess});
  c.outcome(b);
  c.bench.settle();
  EXPECT_EQ(c.state(a), KeyState::hwPending);
  EXPECT_FALSE(c.inUse(kPort));
  c.outcomeDel(b);
  c.outcome(a);
  c.bench.settle();
  EXPECT_FALSE(c.inUse(kPort));
  // The last key without an outcome is withdrawn.
  c.withdraw(b);
  c.bench.settle();
  EXPECT_TRUE(c.inUse(kPort));
  EXPECT_TRUE(c.asked(kPort));
  // The same domain again is a new epoch. It is acknowledged again by the outcomes that still exist.
  c.revoke(kPort);
  c.bench.settle();
  EXPECT_FALSE(c.inUse(kPort));
  EXPECT_EQ(c.composed(a), std::nullopt);
  c.allot(kPort, 11);
  c.bench.settle();
  EXPECT_TRUE(c.inUse(kPort));
}

TEST_F(ComposerTest, DoesNotAcknowledgeWhileADomainChangeIsHandled) {
  Composing c(service, 1);
  c.start();
  std::vector<EmLogicalKey> keys;
  for (std::uint16_t vlan = 0; vlan < 6; ++vlan) keys.push_back(oneTag(kPort, vlan));
  for (const auto& key : keys) c.request(key);
  const auto moved = [&](std::uint16_t domain) {
    std::size_t count = 0;
    for (const auto& key : keys) {
      count += c.composed(key)->emResolvedKey.get<Isem1TagEntryKey>().vlanDomain == U9(domain) ? 1u : 0u;
    }
    return count;
  };
  c.allot(kPort, 10);
  c.bench.settle();
  // One key after the other has its outcome under the new domain before it moves there; the outcomes of the
  // others are known, but under the old domain.
  for (std::uint16_t early = 0; early < keys.size(); ++early) {
    const auto domain = static_cast<std::uint16_t>(11 + early);
    for (const auto& key : keys) c.outcome(key);
    c.bench.settle();
    ASSERT_TRUE(c.inUse(kPort));
    c.allot(kPort, domain);
    c.sideOf(keys[early])
        .status->resolvedKeyStatusIs(
            {keys[early], hwKeyOf(Isem1TagEntryKey{U9(domain), U12(early)}), HwState::hwSuccess});
    std::set<std::size_t> seen;
    while (c.bench.scheduler->runOne()) {
      seen.insert(moved(domain));
      ASSERT_FALSE(moved(domain) > 0 && c.inUse(kPort)) << moved(domain) << " keys moved";
    }
    EXPECT_EQ(seen.size(), keys.size() + 1) << "the change is handled a key at a time";
    EXPECT_EQ(c.state(keys[early]), KeyState::hwSuccess);
  }
}

TEST_F(ComposerTest, OutcomeHandledBeforeTheWithdrawalIsIgnored) {
  Composing c(service, 1);
  c.start();
  const EmLogicalKey key = oneTag(kPort, 1);
  c.request(key);
  c.allot(kPort, 10);
  c.bench.settle();
  c.outcome(key, HwState::hwFail);
  c.withdraw(key);
  for (int tasks = 0; tasks < 20; ++tasks) {
    EXPECT_NE(c.state(key), KeyState::hwFail);
    c.bench.scheduler->run(1);
  }
  EXPECT_EQ(c.state(key), std::nullopt);
}

TEST_F(ComposerTest, AcknowledgementOfAnEarlierValueDoesNotCount) {
  Composing c(service);
  c.start();
  const EmLogicalKey ingress = untagged(kPort), egress = fodoVd(kPort, 7);
  c.request(ingress);
  c.request(egress);
  c.allot(kPort, 10);
  c.bench.settle();
  c.outcome(ingress);
  c.outcome(egress);
  c.allot(kPort, 11);
  c.bench.settle();
  c.outcome(ingress);
  c.bench.settle();
  EXPECT_TRUE(c.inUse(kPort));
  c.withdraw(ingress);
  c.outcomeDel(ingress);
  c.bench.settle();
  EXPECT_FALSE(c.inUse(kPort)) << "the egress composer had acknowledged 10 only";
  EXPECT_EQ(c.resolution(kPort)->val, 11u);
  c.outcome(egress);
  c.bench.settle();
  EXPECT_TRUE(c.inUse(kPort));
  // A composer that joins an existing resolution acknowledges it, too.
  c.request(ingress);
  c.bench.settle();
  c.outcome(ingress);
  c.bench.settle();
  const auto requests = c.resolver->resolverConfig().resolverComposerConfig(kUntagged).value();
  EXPECT_EQ(requests->resolverRequest(vd(kPort))->requestType, ResolverRequest::RequestType::resourceInUse);
}

TEST_F(ComposerTest, ReleasesRequestsOfAnEarlierComposerInSlices) {
  Composing c(service, 1);
  c.startResolver();
  const auto asked = c.configDir->resolverConfigIs(ResolverKeyUnionTag::vd)->resolverComposerConfigIs(k1Tag);
  for (std::uint16_t port = 0; port < 20; ++port) {
    asked->resolverRequestIs({vd({port, 1}), ResolverRequest::RequestType::resourceRequest, 0, 0});
  }
  for (std::uint16_t port = 0; port < 5; ++port) c.request(oneTag({port, 1}, 1));
  c.startComposers();
  const auto standing = [&] { return asked->resolverRequest().size(); };
  EXPECT_GE(standing(), 19u);
  EXPECT_LE(mostPerSlice(*c.bench.scheduler, standing), 1u);
  EXPECT_EQ(standing(), 5u);
  EXPECT_EQ(service.config->config().size(), 20u) << "given back before the sweep";
  EXPECT_TRUE(c.bench.completed(c.sides.at(k1Tag).composer->name()));
  c.bench.create([&] {
    c.resolver->sweep("sweep");
    return c.resolver;
  });
  EXPECT_FALSE(c.bench.completed("sweep"));
  EXPECT_LE(mostPerSlice(*c.bench.scheduler, [&] { return service.config->config().size(); }), 1u);
  EXPECT_EQ(service.config->config().size(), 5u);
  EXPECT_TRUE(c.bench.completed("sweep"));
}

// --- Broken invariants -------------------------------------------------------------------------------------

class BareResolver : public ResolverBase {
 public:
  using ResolverBase::ResolverBase;
};

TEST_F(ComposerTest, BaseOperationsAndProtocolViolations) {
  Composing c(service);
  c.start();
  const ComposerSide& side = c.sides.at(k1Tag);
  ComposerSm base(k1Tag, EmResolvedKeyUnionTag::isem1TagEntryKey, side.config, side.keys, side.status,
                  c.configDir, c.statusDir, "ComposerSm", "base", c.bench.status, c.bench.control(),
                  side.failure);
  EXPECT_THROW((void)base.isSupportedResolverType(ResolverKeyUnionTag::vd), std::logic_error);
  EXPECT_THROW((void)base.getResolverKey(ResolverKeyUnionTag::vd, oneTag(kPort, 1)), std::logic_error);
  EXPECT_THROW((void)base.composeKey(oneTag(kPort, 1)), std::logic_error);
  EXPECT_THROW((void)side.composer->getResolverKey(ResolverKeyUnionTag::vd, untagged(kPort)),
               std::range_error);

  c.request(oneTag(kPort, 1));
  c.bench.settle();
  EXPECT_DEATH(c.resolver->ackInUseComposer(vd(kPort), k1Tag),
               R"(status\.state\(\) == ResolutionState::resolutionSuccess_)");
  EXPECT_DEATH(c.resolver->ackInUseComposer(vd(kOther), k1Tag),
               R"(resolverStatus\(\)->statusHas\( resolverKey \))");
  EXPECT_DEATH((void)side.composer->getResult(ResolverKeyUnionTag::vd, oneTag(kPort, 1)),
               "Expected resolutionSuccess, got resolutionPending");
  EXPECT_DEATH((void)side.composer->getResult(ResolverKeyUnionTag::undefined_, oneTag(kPort, 1)),
               "Unsupported resolverType undefined");
  EXPECT_DEATH((void)side.composer->getResolutionState(oneTag(kOther, 1)),
               R"(resolverStatusIter->statusHas\( resolverKey \))");
  c.configDir->resolverConfigIs(ResolverKeyUnionTag::undefined_);
  EXPECT_DEATH(c.startComposers(), R"(isSupportedResolverType\( resolverConfigIter->resolverType\(\) \))");
}

// --- The outcomes' way back --------------------------------------------------------------------------------

TEST(ResolvedKeyStatusTest, DividesOutcomesByTypeAndSkipsThoseWithoutHardwareKey) {
  Bench bench;
  const auto merged = std::make_shared<EmLogicalKeyToStatus>();
  const auto out = std::make_shared<SwTableKeyStatusByComposerType>();
  const auto outcomesOf = [&](Tag type) -> const auto& {
    return out->statusIs(type)->resolvedKeyStatus();
  };
  const EmHwKey hwKey = hwKeyOf(IsemUntaggedEntryKey{U9(4)});
  const std::vector<EmLogicalKey> keys = {untagged(kPort), oneTag(kPort, 1), twoTag(kPort, 1, 2),
                                          fodoVd(kPort, 3)};
  for (const auto& key : keys) merged->statusIs({key, {}, hwKey, EmStatus::hwKeyConflict});
  merged->statusIs({oneTag(kOther, 1), {}, {}, EmStatus::hwPending});
  merged->statusIs({mplsKey(FeatureType::mpls, 5), {}, hwKey, EmStatus::hwSuccess});
  const auto stage =
      resolvedKeyStatusSmFactory(merged, out, "resolvedKeyStatusSmStage", bench.status, bench.control());
  bench.settle();
  ASSERT_TRUE(bench.completed("resolvedKeyStatusSmStage"));
  for (const auto& key : keys) {
    const auto content = contentOf(outcomesOf(key.emComposerKey.tag()));
    EXPECT_EQ(content, (decltype(content){{key, {key, hwKey, HwState::hwKeyConflict}}}));
  }
  // The table no longer holds the key, which waits again: its outcome is removed although its status is not.
  merged->statusIs({keys[1], {}, {}, EmStatus::hwPending});
  merged->statusDel(keys[2]);
  bench.settle();
  EXPECT_TRUE(outcomesOf(k1Tag).empty());
  EXPECT_TRUE(outcomesOf(k2Tag).empty());
}

}  // namespace
}  // namespace KilnTest
