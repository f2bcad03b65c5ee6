// Withdrawn keys until no trace of them is left in the server and in the tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// The places where a withdrawn key may still be found. Each may be null and is then not checked.
struct KeyTraces {
  Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry;
  Ref<const EmMergedEntry> emMergedEntry;
  Ref<const EmWrittenKeys> emWrittenKeys;
};

/// The keys of one composer that were withdrawn and may still be written to a table, or be stored in one.
///
/// They are checked below the stages' priority, when the stages have no other work: by then it is known
/// whether a request was published again, or another request took its place. Other tasks delay the check by
/// at most kPatience runs. A key whose withdrawal is still pending in the stages is checked again later.
class Departures final : public LocalState {
 public:
  /// Runs of other tasks after which the keys are checked in any case.
  static constexpr std::uint32_t kPatience = 4096;

  /// The composer's knowledge of a key, and its action when the key has left.
  class Composer {
   public:
    [[nodiscard]] virtual bool requested(const EmLogicalKey& emKey) const = 0;
    [[nodiscard]] virtual bool hasHwStatus(const EmLogicalKey& emKey) const = 0;
    virtual void handleDeparted(const EmLogicalKey& emKey) = 0;

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
  /// An event that a leaving key waits for may have happened; no effect for any other key.
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
