// The stages of the server, which their rows of the wiring create.
#pragma once

#include <map>
#include <utility>

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

 private:
  Ref<S> stage_;
};

/// Where the server keeps the stages of one kind, by key.
template <class Key, class S>
class StagesOf {
 public:
  /// The place of a key's stage, which stays where it is.
  [[nodiscard]] StageOf<S>& at(const Key& key) { return stages_[key]; }
  /// Null if the key has none.
  [[nodiscard]] Ref<S> operator()(const Key& key) const {
    const auto found = stages_.find(key);
    return found == stages_.end() ? nullptr : found->second();
  }
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
#define KILN_SERVER_STAGE(Class, name) \
  StageOf<Class> name;                 \
  void name##Is(Ref<Class> stage) {    \
    name.is(std::move(stage));         \
  }                                    \
  void name##Del() {                   \
    name.del();                        \
  }
/// The same for stages by key.
#define KILN_SERVER_STAGES(Key, Class, name)        \
  StagesOf<Key, Class> name;                        \
  void name##Is(const Key& key, Ref<Class> stage) { \
    name.at(key).is(std::move(stage));              \
  }                                                 \
  void name##Del(const Key& key) {                  \
    name.at(key).del();                             \
  }

class ServerStages {
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
};

#undef KILN_SERVER_STAGES
#undef KILN_SERVER_STAGE

}  // namespace KilnEmServer
