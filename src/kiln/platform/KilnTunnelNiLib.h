// The records through which features request entries and read the outcome of each request, per database.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Attribute.h"
#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/Value.h"

namespace KilnTunnelNiLib {

/// What a feature wants of a request. A request of kind `hold` is not programmed: it is answered immediately.
KILN_NAMED_ENUM(KilnTunnelNiLib, RequestKind, 0, add, modify, hold)

/// The reason for a status.
inline constexpr std::uint8_t kResultFromServer = 1;
inline constexpr std::uint8_t kResultHold = 3;

// The request keys of the three databases: the same fields, distinct types.

struct LemEntryKey {
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  KilnEmServer::EmComposerKey emComposerKey;
  KILN_VALUE(KilnTunnelNiLib, LemEntryKey, fapId, localCoreId, emComposerKey)
};
struct IsemEntryKey {
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  KilnEmServer::EmComposerKey emComposerKey;
  KILN_VALUE(KilnTunnelNiLib, IsemEntryKey, fapId, localCoreId, emComposerKey)
};
struct EsemEntryKey {
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  KilnEmServer::EmComposerKey emComposerKey;
  KILN_VALUE(KilnTunnelNiLib, EsemEntryKey, fapId, localCoreId, emComposerKey)
};
inline const KilnPlatform::KeyHint& hintOf(const LemEntryKey& key) {
  return key.emComposerKey.hint<0>();
}
inline const KilnPlatform::KeyHint& hintOf(const IsemEntryKey& key) {
  return key.emComposerKey.hint<0>();
}
inline const KilnPlatform::KeyHint& hintOf(const EsemEntryKey& key) {
  return key.emComposerKey.hint<0>();
}

// The data that features pass with a request, per database.

struct LemClientData {
  KilnEmServer::EmEntry lemEntry;
  KILN_VALUE(KilnTunnelNiLib, LemClientData, lemEntry)
};
struct IsemClientData {
  KilnEmServer::EmEntry isemEntry;
  KILN_VALUE(KilnTunnelNiLib, IsemClientData, isemEntry)
};
struct EsemClientData {
  KilnEmServer::EmEntry esemEntry;
  KILN_VALUE(KilnTunnelNiLib, EsemClientData, esemEntry)
};

/// One request.
template <class ClientData>
struct SrvConfigEntry {
  ClientData clientData;
  std::uint32_t requestVersion = 0;
  RequestKind requestKind = RequestKind::add;
  KILN_VALUE(KilnTunnelNiLib, SrvConfigEntry, clientData, requestVersion, requestKind)
};
using LemSrvConfigEntry = SrvConfigEntry<LemClientData>;
using IsemSrvConfigEntry = SrvConfigEntry<IsemClientData>;
using EsemSrvConfigEntry = SrvConfigEntry<EsemClientData>;

/// The answer to one request, in the layout that the status library fixes.
template <class EntryKey>
struct SrvStatusEntry {
  EntryKey key;
  std::uint64_t reference = 0;       ///< always empty
  std::uint32_t requestVersion = 0;  ///< the request version that this answers
  std::uint32_t one = 1;             ///< always 1
  KilnEmServer::EmStatus status = KilnEmServer::EmStatus::hwPending;
  std::uint8_t result = 0;  ///< kResultFromServer or kResultHold
  KILN_VALUE(KilnTunnelNiLib, SrvStatusEntry, key, reference, requestVersion, one, status, result)
};
using LemSrvStatusEntry = SrvStatusEntry<LemEntryKey>;
using IsemSrvStatusEntry = SrvStatusEntry<IsemEntryKey>;
using EsemSrvStatusEntry = SrvStatusEntry<EsemEntryKey>;

template <class Entry>
consteval bool statusEntryLayoutHolds() {
  return sizeof(Entry::key) == 40 && offsetof(Entry, key) == 0 && offsetof(Entry, reference) == 40 &&
         sizeof(Entry::reference) == 8 && offsetof(Entry, requestVersion) == 48 &&
         sizeof(Entry::requestVersion) == 4 && offsetof(Entry, one) == 52 && sizeof(Entry::one) == 4 &&
         offsetof(Entry, status) == 56 && sizeof(Entry::status) == 1 && offsetof(Entry, result) == 57 &&
         sizeof(Entry::result) == 1;
}
static_assert(statusEntryLayoutHolds<LemSrvStatusEntry>());
static_assert(statusEntryLayoutHolds<IsemSrvStatusEntry>());
static_assert(statusEntryLayoutHolds<EsemSrvStatusEntry>());

/// The three databases as types, for code that is the same for all three.
struct Lem {
  static constexpr KilnEmServer::EmType kEmType = KilnEmServer::EmType::lem;
  static constexpr KilnPlatform::FixedString kPrefix{"lem"};
  using EntryKey = LemEntryKey;
  using ClientData = LemClientData;
  static constexpr auto kEntryOfClientData = &LemClientData::lemEntry;
};
struct Isem {
  static constexpr KilnEmServer::EmType kEmType = KilnEmServer::EmType::isem;
  static constexpr KilnPlatform::FixedString kPrefix{"isem"};
  using EntryKey = IsemEntryKey;
  using ClientData = IsemClientData;
  static constexpr auto kEntryOfClientData = &IsemClientData::isemEntry;
};
struct Esem {
  static constexpr KilnEmServer::EmType kEmType = KilnEmServer::EmType::esem;
  static constexpr KilnPlatform::FixedString kPrefix{"esem"};
  using EntryKey = EsemEntryKey;
  using ClientData = EsemClientData;
  static constexpr auto kEntryOfClientData = &EsemClientData::esemEntry;
};

/// One feature's requests of one database, in the state store. The feature writes it, the server reads it.
template <class Db>
class SrvConfig {
 public:
  using Key = typename Db::EntryKey;
  using Entry = SrvConfigEntry<typename Db::ClientData>;
  KILN_GIVEN_COLLECTION(config, Key, Entry)
  using Config = configColl;
  explicit SrvConfig(std::unique_ptr<Config> config) : config_(std::move(config)) {}

  void configIs(const Key& key, const Entry& entry) { config_->is(key, entry); }
  struct configAttr {
    KILN_ATTRIBUTE_BASE(SrvConfig, config, typename Config::Key, typename Config::Value)
  };
};
using LemSrvConfig = SrvConfig<Lem>;
using IsemSrvConfig = SrvConfig<Isem>;
using EsemSrvConfig = SrvConfig<Esem>;

/// One feature's statuses of one database, in the state store. The server writes it, the feature reads it.
template <class Db>
class SrvStatus {
 public:
  using Key = typename Db::EntryKey;
  using Entry = SrvStatusEntry<Key>;
  KILN_GIVEN_COLLECTION(status, Key, Entry)
  using Status = statusColl;
  explicit SrvStatus(std::unique_ptr<Status> status) : status_(std::move(status)) {}

  /// Inserts or replaces the entry under its own key.
  void statusIs(const Entry& entry) { status_->is(entry.key, entry); }
  /// The same with an explicit key; a key other than the entry's own is an assertion failure.
  void statusIs(const Key& key, const Entry& entry) {
    static constexpr auto kMismatch =
        "In \"into( " + Db::kPrefix + "SrvStatus.status[ " + Db::kPrefix +
        "EntryKey ] )\" the value inserted in the into statement has internal key: {}, but the key specified "
        "in the into is: {}";
    KILN_ASSERT_MESSAGE(entry.key == key, fmt::runtime(kMismatch.view()), entry.key, key);
    status_->is(key, entry);
  }
  struct statusAttr {
    KILN_ATTRIBUTE_BASE(SrvStatus, status, typename Status::Key, typename Status::Value)
    static const Key& keyOf(const Value& value) { return value.key; }
  };
};
using LemSrvStatus = SrvStatus<Lem>;
using IsemSrvStatus = SrvStatus<Isem>;
using EsemSrvStatus = SrvStatus<Esem>;

/// The kind of an external user of the service exact-match tables, by its number; 0 and 2 are known.
using SemType = std::uint8_t;

/// The entries that one external user occupies on one FAP and core.
struct SemExternalUsage {
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  SemType semType = 0;
  std::uint32_t entries = 0;
  KILN_VALUE(KilnTunnelNiLib, SemExternalUsage, fapId, localCoreId, semType, entries)
};

/// One external user of the tables.
struct SemCapacityExternal {
  std::vector<SemExternalUsage> usage;
  KILN_VALUE(KilnTunnelNiLib, SemCapacityExternal, usage)
};

/// The external users, by name.
class SemCapacityExternalDir {
 public:
  using Users = KilnPlatform::KeyedCollection<std::string, SemCapacityExternal>;
  explicit SemCapacityExternalDir(std::unique_ptr<Users> users) : users_(std::move(users)) {}
  Users& user() { return *users_; }
  [[nodiscard]] const Users& user() const { return *users_; }

 private:
  std::unique_ptr<Users> users_;
};

}  // namespace KilnTunnelNiLib
