// The files of the chip's tables: files of a killed process, damaged files, foreign files.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "kiln/agent/chip/MappedCollection.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/platform/EmKeys.h"
#include "tests/Golden.h"
#include "tests/TempDirectory.h"

namespace KilnTest {
namespace {

using KilnAgent::FileDescriptor;
using Key = KilnTunnelNiLib::LemVpwsAcEntryKey;
using Entry = KilnTunnelNiLib::LemVpwsAcEntry;
using Entries = KilnAgent::MappedCollection<Key, Entry>;
using Model = std::map<Key, Entry>;

Key key(std::uint32_t n) {
  return {KilnPlatform::U20(n), {}, {}, {}, {}};
}

Model entriesOf(const Entries& entries) {
  Model content;
  KilnPlatform::forEachIn(entries, [&](const Key& k, const Entry& entry) {
    EXPECT_TRUE(content.emplace(k, entry).second) << "met twice";
  });
  EXPECT_EQ(content.size(), entries.size());
  return content;
}

/// The error on opening the file; empty if it can be opened.
template <class Collection = Entries>
std::string refusalOf(const std::string& path) {
  try {
    const Collection entries(path);
  } catch (const KilnAgent::InputError& error) {
    return error.what();
  }
  return "";
}

/// The n-th of a fixed sequence of changes to few keys: most replace, some delete.
struct Change {
  explicit Change(std::uint32_t n)
      : changed(key(n * 7919 % 61)), deletes(n % 5 == 3), value{n, n + 1, n + 2} {}
  void applyTo(Entries& entries) const { deletes ? entries.del(changed) : entries.is(changed, value); }
  void applyTo(Model& model) const {
    if (deletes) {
      model.erase(changed);
    } else {
      model[changed] = value;
    }
  }
  Key changed;
  bool deletes;
  Entry value;
};

Model modelAfter(std::uint32_t changes) {
  Model model;
  for (std::uint32_t n = 0; n < changes; ++n) Change(n).applyTo(model);
  return model;
}

TEST(ChipFile, EntriesAreConsistentAfterAKillAtAnyInstruction) {
  constexpr std::uint32_t kBefore = 60;
  constexpr std::uint32_t kAfter = 75;
  const TempDirectory directory;
  const std::string path = directory / "table";
  const std::string copy = directory / "copy";
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(1);
    Entries entries(path);
    for (std::uint32_t n = 0; n < kBefore; ++n) Change(n).applyTo(entries);
    raise(SIGSTOP);
    for (std::uint32_t n = kBefore; n < kAfter; ++n) Change(n).applyTo(entries);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFSTOPPED(status)) GTEST_SKIP() << "processes may not be traced here";
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL);
  std::string seen = readWhole(path);
  const FileDescriptor file(open(path.c_str(), O_RDONLY));
  const void* now = mmap(nullptr, seen.size(), PROT_READ, MAP_SHARED, file.number(), 0);
  std::uint32_t reached = kBefore;
  std::size_t states = 0;
  while (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    if (std::memcmp(now, seen.data(), seen.size()) == 0) continue;
    ++states;
    seen.assign(static_cast<const char*>(now), seen.size());
    writeFile(copy, seen);
    const Model found = entriesOf(Entries(copy));
    if (found == modelAfter(reached)) continue;
    ASSERT_EQ(modelAfter(++reached), found);
  }
  EXPECT_EQ(kAfter, reached);
  EXPECT_GT(states, 3U * (kAfter - kBefore)) << "states between were looked at";
  munmap(const_cast<void*>(now), seen.size());
}

TEST(ChipFile, KeepsEntriesWhenItGrowsAndIsReopened) {
  const TempDirectory directory;
  auto entries = std::make_unique<Entries>(directory / "table");
  Model model;
  std::minstd_rand random(3);
  for (std::uint32_t step = 0; step < 20000; ++step) {
    const Key changed = key(static_cast<std::uint32_t>(random() % 3000));
    if (random() % 3 == 0) {
      EXPECT_EQ(model.erase(changed) != 0, entries->del(changed));
    } else {
      const Entry value{static_cast<std::uint32_t>(random() % 4), 0, step % 2};
      const auto at = model.find(changed);
      EXPECT_EQ(at == model.end() || at->second != value, entries->is(changed, value));
      model[changed] = value;
    }
    if (step % 1999 != 0) continue;
    entries.reset();
    entries = std::make_unique<Entries>(directory / "table");
    ASSERT_EQ(model, entriesOf(*entries));
  }
  entries->delAll();
  EXPECT_TRUE(entries->empty());
}

TEST(ChipFile, DamageIsRefusedOrHarmlessAndLeavesTheFileUnchanged) {
  const TempDirectory directory;
  const std::string path = directory / "table";
  {
    Entries entries(path);
    for (std::uint32_t n = 0; n < 40; ++n) Change(n).applyTo(entries);
  }
  const std::string whole = readWhole(path);
  const Model model = entriesOf(Entries(path));
  std::size_t refused = 0;
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  const auto put = [&](std::size_t at, char byte) {
    file.seekp(static_cast<std::streamoff>(at)).put(byte).flush();
  };
  // The header, and some slots of which each is in use, or is free after a use.
  for (std::size_t at = 0; at<4096 + 20 * 64; at += at> 128 && at < 4080 ? 13 : 1) {
    const auto damaged = static_cast<char>(whole[at] ^ (1U << at % 8));
    put(at, damaged);
    if (refusalOf(path).empty()) {
      ASSERT_EQ(model, entriesOf(Entries(path))) << "byte " << at;
      ASSERT_GE(at, 4096U) << "damage of the header goes unnoticed";
    } else {
      refused += at >= 4096 ? 1 : 0;
      ASSERT_EQ(std::string(1, damaged), readWhole(path).substr(at, 1));
    }
    put(at, whole[at]);
  }
  EXPECT_EQ(whole, readWhole(path));
  EXPECT_GT(refused, 12U * 32) << "words, keys and current entries are covered";
}

TEST(ChipFile, ForeignAndTruncatedFilesAreRefusedUnchanged) {
  const TempDirectory directory;
  const std::string path = directory / "table";
  { Entries(path).is(key(1), {1, 2, 3}); }
  const std::string whole = readWhole(path);
  std::string twice = whole;
  twice.replace(4096 + 64, 64, whole, 4096, 64);
  const struct {
    std::string content;
    const char* message;
  } cases[] = {
      {twice, "the key in slot"},
      {"", "is not a table of the software chip"},
      {"some text\n", "is not a table of the software chip"},
      {std::string(100000, 'x'), "is not a table of the software chip"},
      {whole.substr(0, 4096), "is cut short"},
      {whole.substr(0, whole.size() - 1), "is cut short"},
      {whole + std::string(64, 'x'), "something foreign was appended"},
      {whole.substr(0, 64) + "\xFF\xFF\xFF\xFF" + std::string(4, '\0') + whole.substr(72, 4096 - 72),
       "its number of slots is damaged"},  // no slots: the file could not grow
  };
  for (const auto& wrong : cases) {
    writeFile(path, wrong.content);
    EXPECT_NE(std::string::npos, refusalOf(path).find(wrong.message)) << refusalOf(path);
    EXPECT_EQ(wrong.content, readWhole(path));
  }
  writeFile(path, whole + std::string(64, '\0'));
  EXPECT_EQ("", refusalOf(path)) << "what a process that was killed while the file grew leaves";
  using Others =
      KilnAgent::MappedCollection<KilnTunnelNiLib::EsemFodoEntryKey, KilnTunnelNiLib::EsemFodoEntry>;
  EXPECT_NE(std::string::npos, refusalOf<Others>(path).find("another kind"));
  EXPECT_NE("", refusalOf(directory.path()));
  EXPECT_NE("", refusalOf(directory / "nowhere/table"));
}

}  // namespace
}  // namespace KilnTest
