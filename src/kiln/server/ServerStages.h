// The stages of the server, which their rows of the wiring create.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Ref.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnEmServer {

using KilnPlatform::Ref;

class ComposerOutputMergeSm;
class ComposerSelectorSm;
class ComposerSm;
class EmConflictSm;
class EmKeyMergeSm;
class EmSrvConfigMergeSm;
class EmStatusSm;
class EmSwTableStatusSm;
class EmSwTableWriterSm;
class EsemSrvConfigSm;
class EsemSrvStatusSm;
class IsemSrvConfigSm;
class IsemSrvStatusSm;
class LemSrvConfigSm;
class LemSrvStatusSm;
class MdbCapabilitiesSm;
class MdbLocalStatusSm;
class ReconcileCompleteSm;
class ResolvedKeyStatusSm;
class ResolverVd;
class ResourceTableSm;
class SemCapacitySm;
class SwKeyTranslationSm;

/// Where the server keeps one stage.
template <class S>
class StageOf {
 public:
  /// Null until the stage is created.
  [[nodiscard]] const Ref<S>& operator()() const { return stage_; }
  void is(Ref<S> stage) { stage_ = std::move(stage); }
  void del() { stage_.reset(); }
  /// A row creates the stage; only one may.
  void beWired() {
    KILN_ASSERT_MESSAGE(!wired_, "two rows create one stage");
    wired_ = true;
  }
  [[nodiscard]] bool wired() const { return wired_; }

 private:
  Ref<S> stage_;
  bool wired_ = false;
};

/// Where the server keeps the stages of one kind, by key.
template <class Key, class S>
class StagesOf {
 public:
  /// The place of a key's stage; its address does not change.
  [[nodiscard]] StageOf<S>& at(const Key& key) { return stages_[key]; }
  /// Null if the key has none.
  [[nodiscard]] Ref<S> operator()(const Key& key) const {
    const auto found = stages_.find(key);
    return found == stages_.end() ? nullptr : found->second();
  }
  /// Whether a row creates any of them.
  [[nodiscard]] bool wired() const { return !stages_.empty(); }
  /// Calls `visitor(key, stage)` with each stage that exists, in the order of keys.
  template <class Visitor>
  void forEach(Visitor&& visitor) const {
    for (const auto& [key, stage] : stages_) {
      if (stage() != nullptr) visitor(key, stage());
    }
  }

 private:
  std::map<Key, StageOf<S>> stages_;
};

/// A stage of the server, with its creator and its remover; `name()` is the reference to it.
#define KILN_SERVER_STAGE(Class, name)          \
  StageOf<Class> name;                          \
  PlaceCheck name##Check{checks_, #name, name}; \
  void name##Is(Ref<Class> stage) {             \
    name.is(std::move(stage));                  \
  }                                             \
  void name##Del() {                            \
    name.del();                                 \
  }
/// The same for stages by key.
#define KILN_SERVER_STAGES(Key, Class, name)        \
  StagesOf<Key, Class> name;                        \
  PlaceCheck name##Check{checks_, #name, name};     \
  void name##Is(const Key& key, Ref<Class> stage) { \
    name.at(key).is(std::move(stage));              \
  }                                                 \
  void name##Del(const Key& key) {                  \
    name.at(key).del();                             \
  }

class ServerStages {
 private:
  /// Finds out whether a row uses the place of a stage.
  class PlaceCheck {
   public:
    template <class Place>
    PlaceCheck(std::vector<const PlaceCheck*>& all, const char* name, const Place& place)
        : name_(name),
          place_(&place),
          wired_([](const void* each) { return static_cast<const Place*>(each)->wired(); }) {
      all.push_back(this);
    }
    PlaceCheck(const PlaceCheck&) = delete;
    PlaceCheck& operator=(const PlaceCheck&) = delete;
    void check() const { KILN_ASSERT_MESSAGE(wired_(place_), "no row of the wiring creates {}", name_); }

   private:
    const char* name_;
    const void* place_;
    bool (*wired_)(const void*);
  };
  std::vector<const PlaceCheck*> checks_;

 public:
  KILN_SERVER_STAGE(ResourceTableSm, resourceTableSm)
  KILN_SERVER_STAGE(IsemSrvConfigSm, isemSrvConfigSm)
  KILN_SERVER_STAGE(EsemSrvConfigSm, esemSrvConfigSm)
  KILN_SERVER_STAGE(LemSrvConfigSm, lemSrvConfigSm)
  KILN_SERVER_STAGE(EmSrvConfigMergeSm, emSrvConfigMergeSm)
  KILN_SERVER_STAGES(EmComposerKeyUnionTag, ComposerSelectorSm, composerSelectorSm)
  KILN_SERVER_STAGES(ResolverKeyUnionTag, ResolverVd, resolverSm)
  KILN_SERVER_STAGES(EmComposerKeyUnionTag, ComposerSm, composerSm)
  KILN_SERVER_STAGES(EmComposerKeyUnionTag, SwKeyTranslationSm, swKeyTranslationSm)
  KILN_SERVER_STAGE(ComposerOutputMergeSm, composerOutputMergeSm)
  KILN_SERVER_STAGE(EmKeyMergeSm, emKeyMergeSm)
  KILN_SERVER_STAGE(EmConflictSm, emConflictSm)
  KILN_SERVER_STAGES(EmResolvedKeyUnionTag, EmSwTableWriterSm, swTableWriterSm)
  KILN_SERVER_STAGE(ReconcileCompleteSm, reconcileCompleteSm)
  KILN_SERVER_STAGE(EmSwTableStatusSm, swTableStatusSm)
  KILN_SERVER_STAGE(MdbLocalStatusSm, mdbLocalStatusSm)
  KILN_SERVER_STAGE(MdbCapabilitiesSm, mdbCapabilitiesSm)
  KILN_SERVER_STAGE(SemCapacitySm, semCapacitySm)
  KILN_SERVER_STAGE(EmStatusSm, emStatusSm)
  KILN_SERVER_STAGE(ResolvedKeyStatusSm, resolvedKeyStatusSm)
  KILN_SERVER_STAGES(FeatureType, IsemSrvStatusSm, isemSrvStatusSm)
  KILN_SERVER_STAGES(FeatureType, EsemSrvStatusSm, esemSrvStatusSm)
  KILN_SERVER_STAGES(FeatureType, LemSrvStatusSm, lemSrvStatusSm)

 protected:
  ServerStages() = default;
  ~ServerStages() = default;
  /// To be called when the rows exist: a stage that none of them creates is a failed assertion.
  void checkEachIsWired() const {
    for (const PlaceCheck* each : checks_) each->check();
  }
};

#undef KILN_SERVER_STAGES
#undef KILN_SERVER_STAGE

}  // namespace KilnEmServer
