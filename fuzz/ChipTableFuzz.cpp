// The file of one of the chip's tables, damaged or of another origin: either it is refused and not changed,
// or it is a table whose entries can be read, changed and found again.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <map>

#include "fuzz/Fuzz.h"
#include "fuzz/Scratch.h"
#include "kiln/agent/chip/MappedCollection.h"
#include "kiln/platform/EmKeys.h"

namespace KilnFuzz {
namespace {

using Key = KilnTunnelNiLib::LemVpwsAcEntryKey;
using Entry = KilnTunnelNiLib::LemVpwsAcEntry;
using Entries = KilnAgent::MappedCollection<Key, Entry>;
using Model = std::map<Key, Entry>;

constexpr std::size_t kHeaderBytes = 4096;

Key keyOf(std::uint32_t inLif) {
  return {KilnPlatform::U20(inLif), {}, {}, {}, {}};
}

/// A table file as an agent writes it.
const std::string& wholeFile(const std::string& path) {
  static const std::string content = [&] {
    Entries entries(path);
    for (std::uint32_t n = 0; n < 6; ++n) entries.is(keyOf(n), {n, n, n});
    entries.is(keyOf(2), {9, 9, 9});
    entries.del(keyOf(4));
    return readWhole(path);
  }();
  return content;
}

/// A slot as its layout is described in the header.
struct Slot {
  std::uint64_t word = 0;
  Key key;
  struct {
    Entry value;
    std::uint32_t checksum = 0;
  } versions[2];
};

/// A slot with a valid checksum, although an agent may not have written its content.
Slot drawSlot(FuzzedDataProvider& input) {
  Slot slot;
  slot.word = input.ConsumeIntegral<std::uint64_t>();
  input.ConsumeData(&slot.key, sizeof slot.key);
  auto& current = slot.versions[slot.word & 1U];
  input.ConsumeData(&current.value, sizeof current.value);
  const std::string bytes = KilnAgent::encoded(slot.key) + KilnAgent::encoded(current.value);
  current.checksum = KilnAgent::checksumOf(bytes, slot.word);
  return slot;
}

void damage(std::string& file, FuzzedDataProvider& input) {
  const std::size_t at = input.ConsumeIntegralInRange<std::size_t>(0, file.size());
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: {
      const std::string bytes = input.ConsumeRandomLengthString(16);
      if (at + bytes.size() <= file.size()) file.replace(at, bytes.size(), bytes);
      return;
    }
    case 1:
      return file.resize(at + input.ConsumeIntegralInRange<std::size_t>(0, 128),
                         input.ConsumeIntegral<char>());
    default: {
      const std::size_t slotAt = kHeaderBytes + at % 16 * KilnAgent::ChipFile::kSlotBytes;
      const Slot slot = drawSlot(input);
      if (slotAt + sizeof slot <= file.size()) std::memcpy(file.data() + slotAt, &slot, sizeof slot);
    }
  }
}

Model contentOf(const Entries& entries) {
  Model content;
  KilnPlatform::forEachIn(entries, [&](const Key& key, const Entry& entry) {
    KILN_ASSERT(content.emplace(key, entry).second && *entries.find(key) == entry);
    KILN_ASSERT(KilnPlatform::valueFromText<Key>(KilnPlatform::textOf(key)) == key);
  });
  KILN_ASSERT(content.size() == entries.size());
  return content;
}

void change(Entries& entries, Model& model, FuzzedDataProvider& input) {
  for (int n = input.ConsumeIntegralInRange(0, 8); n != 0; --n) {
    const Key key = keyOf(input.ConsumeIntegralInRange(0, 9));
    if (input.ConsumeBool()) {
      KILN_ASSERT(entries.del(key) == (model.erase(key) != 0));
    } else {
      entries.is(key, model[key] = {input.ConsumeIntegral<std::uint8_t>(), 0, 0});
    }
  }
}

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace KilnFuzz;
  static const ScratchDirectory directory;
  const std::string path = directory / "table";
  std::string file = wholeFile(path);
  FuzzedDataProvider input(data, size);
  for (int n = input.ConsumeIntegralInRange(0, 4); n != 0; --n) damage(file, input);
  writeWhole(path, file);
  Model model;
  const auto refused = refusalOf([&] { model = contentOf(Entries(path)); });
  KILN_ASSERT(readWhole(path) == file);
  if (refused) return 0;
  {
    Entries entries(path);
    change(entries, model, input);
  }
  KILN_ASSERT(contentOf(Entries(path)) == model);
  return 0;
}
