// Converts the tables' answers, which are per hardware key, to statuses of the logical keys that own them.
#pragma once

#include <boost/container/small_vector.hpp>
#include <optional>
#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// A logical key that moves between hardware keys has, for a while, a status under more than one. The most
/// recent answer is published, whatever the order in which the changes are handled; when it is removed, the
/// latest of the remaining ones replaces it.
class EmSwTableStatusSm final : public Stage {
 public:
  EmSwTableStatusSm(Ref<const EmSwTableStatus> emSwTableStatus,
                    Ref<EmLogicalKeyToStatus> emLogicalKeyToStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus, StageControl control);

  /// Prefetches the keys that the handler looks up in addition to its own.
  void prefetchFor(const EmHwKey& swTableKey) const {
    if (const EmLogicalKey* owner = cacheAttr0_.peek(swTableKey)) prefetchKey(*owner);
  }

 private:
  /// The hardware keys that the cache has for a logical key in addition to the published one.
  class OtherHwKeys final : public LocalState {
   public:
    explicit OtherHwKeys(Stage& stage) : LocalState(stage, "otherHwKeys") {}
    void add(const EmLogicalKey& logicalKey, const EmHwKey& hwKey);
    void del(const EmLogicalKey& logicalKey, const EmHwKey& hwKey);
    using HwKeys = boost::container::small_vector<EmHwKey, 1>;
    /// Those of a logical key, or null; valid until the next change.
    [[nodiscard]] const HwKeys* find(const EmLogicalKey& logicalKey) const {
      return keys_.size() == 0 ? nullptr : keys_.find(logicalKey);
    }
    [[nodiscard]] std::size_t size() const override { return keys_.size(); }
    void clear() override { keys_.clear(); }
    void noteState(StateDigest& digest) const override {
      digest.unordered([&](auto&& item) {
        keys_.forEach([&](const EmLogicalKey& logicalKey, const HwKeys& hwKeys) {
          for (const EmHwKey& hwKey : hwKeys) item(logicalKey, hwKey);
        });
      });
    }

   private:
    static void remove(HwKeys& keys, const EmHwKey& hwKey);

    LocalMap<EmLogicalKey, HwKeys> keys_;
  };

  void handleStatus(const EmHwKey& swTableKey, const EmSwTableStatusEntry* statusOpt);
  void remove(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey);
  void insert(const EmLogicalKey& owner, const EmHwKey& swTableKey, const EmSwTableStatusEntry& status);
  /// The status of a hardware key, if it is about the logical key.
  [[nodiscard]] const EmSwTableStatusEntry* statusAbout(const EmLogicalKey& logicalKey,
                                                        const EmHwKey& swTableKey) const;
  /// The other hardware key with the most recent answer; nothing if none has a status.
  [[nodiscard]] std::optional<EmHwKey> latestOther(const EmLogicalKey& logicalKey) const;
  void publish(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey, const EmSwTableStatusEntry& status);

  Input<EmSwTableStatus::statusAttr, "emSwTableStatus", &EmSwTableStatusSm::handleStatus,
        "Line 23: from( emSwTableStatus.status[] ): swTableKey={} statusOpt={}">
      emSwTableStatus_;
  Cache<EmHwKey, EmLogicalKey> cacheAttr0_;
  OtherHwKeys otherHwKeys_;
  Output<EmLogicalKeyToStatus::statusAttr, "emLogicalKeyToStatus", "logicalKey", KeyMismatch::report>
      emLogicalKeyToStatus_;
};

Ref<EmSwTableStatusSm> emSwTableStatusSmFactory(Ref<const EmSwTableStatus> emSwTableStatus,
                                                Ref<EmLogicalKeyToStatus> emLogicalKeyToStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus,
                                                StageControl control);

}  // namespace KilnEmServer
