// The logical keys for which a table holds entries, or may still write them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"

namespace KilnEmServer {

/// The number of an operation among all operations of one writer, starting at 1. A stored entry keeps the
/// number of its write, so numbers must not wrap around.
using OperationNumber = std::uint64_t;

/// Follows one table's operations, and publishes the logical keys for which it holds an entry or was asked to
/// write one. A table applies the operations on one hardware key in the order issued, so an answer implies
/// that every earlier operation on the key was applied and superseded.
class WrittenKeys final : public LocalState {
 public:
  /// Follows nothing if `emWrittenKeys` is null. `Writer` has the public function `owns(emLogicalKey)`.
  template <class Writer>
  WrittenKeys(Writer& writer, Ref<EmWrittenKeys> emWrittenKeys) : LocalState(writer, "writtenKeys") {
    if (emWrittenKeys == nullptr) return;
    writer.prefetchSetAdd(owners_);
    emWrittenKeys_.emplace(writer, std::move(emWrittenKeys));
  }

  /// An entry of `emLogicalKey` is about to be written under `hwKey`.
  void written(const EmHwKey& hwKey, const EmLogicalKey& emLogicalKey, OperationNumber operation);
  /// The table answered an operation on `hwKey`; `holds` if that was a write and succeeded.
  void answered(const EmHwKey& hwKey, OperationNumber operation, bool holds);

  [[nodiscard]] std::size_t size() const override { return owners_.size(); }
  void clear() override { owners_.clear(); }
  void noteState(StateDigest& digest) const override;
  /// Describes the effect that the answer of an operation on `hwKey` will have on its owners.
  void noteOperation(StateDigest& digest, const EmHwKey& hwKey, OperationNumber operation) const;

 private:
  /// A logical key whose entry is, or may be, stored under a hardware key.
  struct Owner {
    KeyHold<EmLogicalKey> emLogicalKey;
    OperationNumber last = 0;  ///< its latest write
  };
  /// Usually there is one; a second one exists while a key's owner changes, rarely more.
  struct Owners {
    Owner first;
    Owner second;
    std::unique_ptr<std::vector<Owner>> others;  ///< only if there is a second
  };

  template <class Visitor>
  static void forEachOwner(const Owners& owners, Visitor&& visit);
  [[nodiscard]] static Owner* find(Owners& owners, const EmLogicalKey& emLogicalKey);
  void add(Owners& owners, const EmLogicalKey& emLogicalKey, OperationNumber operation);
  void dropOvertaken(Owners& owners, OperationNumber operation, bool holds);
  /// Takes out one owner other than the first two; none if there is none.
  [[nodiscard]] static Owner takeOther(Owners& owners);
  void count(const EmLogicalKey& emLogicalKey, bool more);

  std::optional<DirectOutput<EmWrittenKeys::writtenAttr, "emWrittenKeys">> emWrittenKeys_;
  LocalMap<EmHwKey, Owners> owners_;
};

}  // namespace KilnEmServer
