// Schedules a task whenever a collection changes.
#pragma once

#include "kiln/platform/Collection.h"
#include "kiln/platform/TaskScheduler.h"

namespace KilnEmServer {

/// Subscribes to a collection for its lifetime. A change only makes the task ready and sets `changed`, if
/// that is not null. The cost of a change depends neither on the key nor on the number of earlier changes.
/// Collection, task and flag must outlive the mark.
template <class K, class V>
class ChangeMark final : private KilnPlatform::KeySubscriber<K> {
 public:
  ChangeMark(const KilnPlatform::KeyedCollection<K, V>& collection, KilnPlatform::Task& task,
             bool* changed = nullptr)
      : collection_(collection), task_(task), changed_(changed) {
    collection_.subscribe(*this);
  }
  ~ChangeMark() { collection_.unsubscribe(*this); }
  ChangeMark(const ChangeMark&) = delete;
  ChangeMark& operator=(const ChangeMark&) = delete;

 private:
  void handleChange(const K& /*key*/) override {
    if (changed_ != nullptr) *changed_ = true;
    task_.scheduleTask();
  }

  const KilnPlatform::KeyedCollection<K, V>& collection_;
  KilnPlatform::Task& task_;
  bool* changed_;
};

}  // namespace KilnEmServer
