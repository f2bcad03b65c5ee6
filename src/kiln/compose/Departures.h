// Withdrawn keys on their way out: until nothing of them is left in the server and in the tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Where a key may still be found after its withdrawal. Each may be null, and is then not looked at.
struct KeyTraces {
  Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry;
  Ref<const EmMergedEntry> emMergedEntry;
  Ref<const EmWrittenKeys> emWrittenKeys;
};

/// The keys of one composer that were withdrawn and may still reach a table, or be stored in one.
///
/// They are looked at below the stages' priority, when the stages have nothing else to do: a request that is
/// withdrawn and published again, or one that takes another's place, is then known. Endless work of other
/// tasks delays that by kPatience runs at most; a key whose withdrawal is still on its way through the stages
/// is looked at again later.
class Departures final : public LocalState {
 public:
  /// Runs of other tasks before the keys are looked at in spite of them.
  static constexpr std::uint32_t kPatience = 4096;

  /// What the composer knows of a key, and what it does when the key is gone.
  class Composer {
   public:
    [[nodiscard]] virtual bool requested(const EmLogicalKey& emKey) const = 0;
    [[nodiscard]] virtual bool hasHwStatus(const EmLogicalKey& emKey) const = 0;
    virtual void handleGone(const EmLogicalKey& emKey) = 0;

   protected:
    ~Composer() = default;
  };

  Departures(Stage& stage, Composer& composer, KeyTraces traces);
  ~Departures() override;

  /// Creates the task; to be called when the stage is initialized.
  void start();
  /// The key was withdrawn. False if it was leaving already.
  bool begin(const EmLogicalKey& emKey);
  /// The key is requested again. False if it was not leaving.
  bool cancel(const EmLogicalKey& emKey);
  /// Something that a leaving key waits for may have ended; nothing for any other key.
  void check(const EmLogicalKey& emKey);
  [[nodiscard]] bool has(const EmLogicalKey& emKey) const {
    return leaving_.size() != 0 && leaving_.find(emKey) != nullptr;
  }
  [[nodiscard]] const Ref<const EmWrittenKeys>& emWrittenKeys() const { return traces_.emWrittenKeys; }

  [[nodiscard]] std::size_t size() const override { return leaving_.size(); }
  void clear() override;
  void noteState(StateDigest& digest) const override {
    digest.unordered([&](auto&& item) { leaving_.forEach(item); });
    toCheck_.forEach([&](const EmLogicalKey& emKey, Arrival /*arrival*/) { digest.add(emKey); });
  }

 private:
  void run();
  void look(const EmLogicalKey& emKey);
  [[nodiscard]] bool onItsWay(const EmLogicalKey& emKey) const;

  Stage& stage_;
  Composer& composer_;
  KeyTraces traces_;
  LocalMap<EmLogicalKey, KilnPlatform::Unit> leaving_;
  PendingKeys<EmLogicalKey> toCheck_;
  std::unique_ptr<Task> task_;
};

}  // namespace KilnEmServer
