// Whether the server accepts a request: the intakes admit by it, the status stages answer by it.
#pragma once

#include <cstdint>

#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnEmServer {

/// The outcome of admission. Only an admitted request reaches composers and tables; a held one is answered as
/// held, every other one with `hwFail`.
enum class Admission : std::uint8_t {
  admitted,
  held,
  otherDatabase,  ///< its key belongs to another database, or to no database
  mixedScope,     ///< exactly one of chip and core is "all": no table has a place for it
  unknownKind,
};

/// Whether keys of this kind belong to the database.
template <class Db>
bool isOfDatabase(const EmComposerKey& key) {
  return key.tag() != EmComposerKeyUnionTag::undefined_ && emTypeOf(key.tag()) == Db::kEmType;
}

/// Decides the admission of a request of the database `Db`. If there are several reasons to leave it out, the
/// first counts.
template <class Db>
Admission admissionOf(const typename Db::EntryKey& key, KilnTunnelNiLib::RequestKind kind) {
  using KilnTunnelNiLib::RequestKind;
  if (kind == RequestKind::hold) return Admission::held;
  if (!isOfDatabase<Db>(key.emComposerKey)) return Admission::otherDatabase;
  const bool allFaps = key.fapId == Hardware::Kiln::FapId::allFap();
  const bool allCores = key.localCoreId == Hardware::Kiln::LocalCoreId::all();
  if (allFaps != allCores) return Admission::mixedScope;
  return kind == RequestKind::add || kind == RequestKind::modify ? Admission::admitted
                                                                 : Admission::unknownKind;
}

}  // namespace KilnEmServer
