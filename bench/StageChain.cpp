#include <fmt/format.h>

#include <memory>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "bench/Chain.h"
#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Entity.h"
#include "kiln/runtime/collections/PrefetchedItems.h"
#include "kiln/runtime/stage/DependencyStatus.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnBench {
namespace {

using KilnPlatform::Ref;

/// The chains' key as a key of the server's kind: described, and with a hint of its last place.
struct StageKey {
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::uint64_t third = 0;
  std::uint64_t fourth = 0;
  std::uint32_t fifth = 0;
  KilnPlatform::KeyHint hint = {};

  friend bool operator==(const StageKey&, const StageKey&) = default;
  KILN_VALUE_FIELDS(KilnBench, StageKey, first, second, third, fourth, fifth)
};
static_assert(sizeof(StageKey) == sizeof(ChainKey));
const KilnPlatform::KeyHint& hintOf(const StageKey& key) {
  return key.hint;
}
StageKey stageKey(std::uint32_t n) {
  const auto& words = chainKey(n).words;
  return {words[0], words[1], words[2], words[3], static_cast<std::uint32_t>(words[4])};
}

/// A value of the chains; its text form is never used.
template <std::size_t stage>
struct Result {
  ChainValue<stage> chain;

  friend bool operator==(const Result&, const Result&) = default;
  static constexpr std::string_view kTypeName = "KilnBench::Result";
  static constexpr auto fields() { return std::tuple{}; }
};

template <std::size_t stage>
class Results {
  KILN_COLLECTION(Results, result, StageKey, Result<stage>)
};

template <std::size_t stage>
class StepSm final : public KilnEmServer::Stage {
  using Before = Results<stage - 1>;
  using Own = Results<stage>;

 public:
  StepSm(Ref<const Before> before, Ref<Own> own, Ref<KilnEmServer::DependencyStatus> status,
         KilnEmServer::StageControl control)
      : Stage("StepSm", fmt::format("StepSm-{}", stage), std::move(status), std::move(control),
              "Line 9: from( this.ready )"),
        before_(*this, std::move(before)),
        own_(*this, std::move(own)) {}

 private:
  void handleResult(const StageKey& key, const Result<stage - 1>* before) {
    if (before == nullptr) {
      own_.erase(key);
    } else {
      own_.insert(key, {chainStep<stage>(before->chain)});
    }
  }

  KilnEmServer::Input<typename Before::resultAttr, "before", &StepSm::handleResult,
                      "Line 3: from( before.result[] ): key={} valueOpt={}">
      before_;
  KilnEmServer::Output<typename Own::resultAttr, "own", "key"> own_;
};

}  // namespace

struct StageContent {
  StageContent() {
    [this]<std::size_t... before>(std::index_sequence<before...>) {
      (connect<before + 1>(), ...);
    }
    (std::make_index_sequence<kStages - 1>());
    scheduler->runUntilIdle();
  }
  template <std::size_t stage>
  auto& results() {
    return std::get<stage>(collections);
  }
  template <std::size_t stage>
  void connect() {
    stages.push_back(KilnEmServer::makeStage<StepSm<stage>>(results<stage - 1>(), results<stage>(), status,
                                                            KilnEmServer::StageControl{scheduler, 3, false}));
  }
  void publish(std::uint32_t n, std::uint32_t version) {
    waiting.push_back({stageKey(n), {chainRequest(n, version)}, true});
  }
  void withdraw(std::uint32_t n) { waiting.push_back({stageKey(n), {}, false}); }
  void settle() { scheduler->runUntilIdle(); }
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const {
    std::uint32_t count = 0;
    KilnPlatform::forEachIn(std::as_const(*std::get<kStages - 1>(collections)).result(),
                            [&](const auto& /*key*/, const auto& last) {
                              if (last.chain.words[0] == lastWordOf(version)) ++count;
                            });
    return count;
  }
  /// Requests are submitted in lists, as the server's features submit theirs.
  void handIn() {
    auto& requests = results<0>()->result();
    KilnEmServer::forEachPrefetched(
        requests, std::span<const Change>(waiting),
        [](const Change& change) -> const StageKey& { return change.key; },
        [&](const Change& change) {
          if (change.wanted) {
            requests.is(change.key, change.value);
          } else {
            requests.del(change.key);
          }
        });
    waiting.clear();
  }

  template <class Stages>
  struct Collections;
  template <std::size_t... stages>
  struct Collections<std::index_sequence<stages...>> {
    using Type = std::tuple<Ref<Results<stages>>...>;
    static Type make() { return {std::make_shared<Results<stages>>()...}; }
  };
  using AllCollections = Collections<std::make_index_sequence<kStages>>;

  struct Change {
    StageKey key;
    Result<0> value;
    bool wanted;  ///< false if it is withdrawn
  };

  Ref<KilnAgent::CooperativeScheduler> scheduler = std::make_shared<KilnAgent::CooperativeScheduler>();
  Ref<KilnEmServer::DependencyStatusRecord> status = std::make_shared<KilnEmServer::DependencyStatusRecord>();
  AllCollections::Type collections = AllCollections::make();
  std::vector<Ref<KilnEmServer::Stage>> stages;
  std::vector<Change> waiting;
};

template class Chain<StageContent>;

}  // namespace KilnBench
