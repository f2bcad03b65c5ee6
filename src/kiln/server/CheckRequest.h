// The check of a request before it is published.
#pragma once

#include <optional>
#include <string>

#include "kiln/platform/KilnTunnelNiLib.h"

namespace KilnEmServer {

/// What is wrong with a request that a feature is about to publish in database `Db`, in words; nothing where
/// it is sound. Checked are: the key belongs to the database, the entry to the key's table, every field fits
/// the hardware (reserved values are allowed), chip and core are both all or both specific, the kind is
/// known. A request that passes may still fail later, for what is decided elsewhere: its VLAN domain, a
/// conflict, a full table.
template <class Db>
std::optional<std::string> checkRequest(
    const typename Db::EntryKey& key,
    const KilnTunnelNiLib::SrvConfigEntry<typename Db::ClientData>& request);

extern template std::optional<std::string> checkRequest<KilnTunnelNiLib::Lem>(
    const KilnTunnelNiLib::LemEntryKey&, const KilnTunnelNiLib::LemSrvConfigEntry&);
extern template std::optional<std::string> checkRequest<KilnTunnelNiLib::Isem>(
    const KilnTunnelNiLib::IsemEntryKey&, const KilnTunnelNiLib::IsemSrvConfigEntry&);
extern template std::optional<std::string> checkRequest<KilnTunnelNiLib::Esem>(
    const KilnTunnelNiLib::EsemEntryKey&, const KilnTunnelNiLib::EsemSrvConfigEntry&);

}  // namespace KilnEmServer
