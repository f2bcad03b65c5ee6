// Destroys collections in slices.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <type_traits>
#include <utility>

#include "kiln/agent/platform/Collections.h"
#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnAgent {

/// Empties entities without remaining references, one entry per item, on a task below the stages' priority.
/// So the component that releases the last reference does not pay for their size.
class Disposal {
 public:
  explicit Disposal(const KilnPlatform::Ref<KilnPlatform::TaskScheduler>& scheduler);

  /// A shared entity of one collection, `contentOf(entity)`. When its last reference is released it is moved
  /// here, or destroyed immediately if the disposal no longer exists.
  template <class Entity, class ContentOf>
  static std::shared_ptr<Entity> share(const std::shared_ptr<Disposal>& disposal,
                                       std::unique_ptr<Entity> entity, ContentOf contentOf) {
    const std::weak_ptr<Disposal> known = disposal;
    return {entity.release(), [known, contentOf](Entity* left) {
              auto waste = std::make_unique<WasteOf<Entity, ContentOf>>(left, contentOf);
              if (const auto present = known.lock()) present->take(std::move(waste));
            }};
  }

  /// Schedules its task again after the scheduler forgot its tasks.
  void resume();
  /// Describes the remaining size of each entity.
  void noteState(KilnEmServer::StateDigest& digest) const {
    for (const auto& waste : waste_) digest.add(waste->size());
  }

 private:
  struct Waste {
    virtual ~Waste() = default;
    /// Deletes one more entry; false if none is left.
    virtual bool dropNext() = 0;
    /// Number of remaining entries.
    [[nodiscard]] virtual std::size_t size() const = 0;
  };
  template <class Entity, class ContentOf>
  struct WasteOf final : Waste {
    WasteOf(Entity* left, ContentOf contentOfIt) : entity(left), contentOf(contentOfIt) {
      watch(contentOf(*entity), static_cast<Watcher*>(nullptr));
    }
    bool dropNext() override {
      auto& content = contentOf(*entity);
      const auto* key = content.scanNext(cursor);
      return key != nullptr && content.del(typename Content::Key(*key));
    }
    [[nodiscard]] std::size_t size() const override { return contentOf(*entity).size(); }
    using Content = std::remove_reference_t<std::invoke_result_t<ContentOf, Entity&>>;
    using Watcher = ChangeWatcher<typename Content::Key, typename Content::Value>;
    std::unique_ptr<Entity> entity;
    ContentOf contentOf;
    KilnPlatform::ScanCursor<typename Content::Key> cursor;
  };

  void take(std::unique_ptr<Waste> waste);
  void runSlice();

  KilnEmServer::StageControl control_;
  std::deque<std::unique_ptr<Waste>> waste_;
  KilnPlatform::Task task_;
};

}  // namespace KilnAgent
