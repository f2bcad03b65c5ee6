#include "kiln/agent/chip/ChipFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/Assert.h"

namespace KilnAgent {
namespace {

constexpr std::string_view kMagic = "KilnEmServer chip table 2\n";
/// Offset of the number of slots in the header, aligned so that one instruction stores the number.
constexpr std::size_t kCountAt = 64;

constexpr std::string_view kForeign = "is not a table of the software chip";

/// The number of slots in one word with its own complement, so that damage is detected.
std::uint64_t countWord(std::size_t slots) {
  return static_cast<std::uint64_t>(slots) << 32U | (~static_cast<std::uint64_t>(slots) & 0xFFFFFFFFU);
}

/// The header without the number of slots.
std::string headerOf(std::string_view layout, std::size_t bytes) {
  std::string header(bytes, '\0');
  kMagic.copy(header.data(), kCountAt);
  layout.copy(header.data() + kCountAt + sizeof(std::uint64_t), ChipFile::kMaxLayout);
  return header;
}

}  // namespace

ChipFile::ChipFile(std::string path, std::string_view layout) : path_(std::move(path)) {
  KILN_ASSERT(layout.size() <= kMaxLayout);
  if (::access(path_.c_str(), F_OK) != 0) create(layout);
  const std::size_t bytes = open();
  checkHeader(layout);
  slots_ = recordedSlots(bytes);
}

void ChipFile::Unmap::operator()(std::byte* map) const {
  ::munmap(map, kHeaderBytes + kMaxSlots * kSlotBytes);
}

void ChipFile::refuse(std::string_view why) const {
  throw InputError(fmt::format("{}: {}; it is left as it is", path_, why));
}

/// The file gets its name only when it is complete.
void ChipFile::create(std::string_view layout) const {
  std::string content = headerOf(layout, kHeaderBytes);
  const std::uint64_t count = countWord(kFirstSlots);
  std::memcpy(content.data() + kCountAt, &count, sizeof count);
  content.resize(kHeaderBytes + kFirstSlots * kSlotBytes);
  const std::string unfinished = path_ + ".new";
  const FileDescriptor file(
      ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  const auto written = file.valid() ? ::write(file.number(), content.data(), content.size()) : -1;
  if (written >= 0 && written < std::ssize(content)) errno = ENOSPC;  // a short write sets no errno
  if (written != std::ssize(content) || ::fsync(file.number()) != 0 ||
      ::rename(unfinished.c_str(), path_.c_str()) != 0) {
    throw InputError(fmt::format("{}: cannot be created: {}", path_, std::strerror(errno)));
  }
}

std::size_t ChipFile::open() {
  file_ = FileDescriptor(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  struct stat status {};
  if (!file_.valid() || ::fstat(file_.number(), &status) != 0) {
    refuse(fmt::format("cannot be opened: {}", std::strerror(errno)));
  }
  if (!S_ISREG(status.st_mode) || status.st_size < static_cast<off_t>(kHeaderBytes)) refuse(kForeign);
  void* map = ::mmap(nullptr, kHeaderBytes + kMaxSlots * kSlotBytes, PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_NORESERVE, file_.number(), 0);
  if (map == MAP_FAILED) refuse(fmt::format("cannot be mapped: {}", std::strerror(errno)));
  map_.reset(static_cast<std::byte*>(map));
  return static_cast<std::size_t>(status.st_size);
}

void ChipFile::checkHeader(std::string_view layout) const {
  const std::byte* const header = map_.get();
  if (std::memcmp(header, kMagic.data(), kMagic.size()) != 0) refuse(kForeign);
  const std::string expected = headerOf(layout, kHeaderBytes);
  const auto differs = [&](std::size_t from, std::size_t to) {
    return std::memcmp(header + from, expected.data() + from, to - from) != 0;
  };
  if (differs(0, kCountAt) || differs(kCountAt + sizeof(std::uint64_t), kHeaderBytes)) {
    refuse("is a chip table of another kind or version, or its header is damaged");
  }
}

std::size_t ChipFile::recordedSlots(std::size_t bytes) const {
  std::uint64_t word = 0;
  std::memcpy(&word, map_.get() + kCountAt, sizeof word);
  const std::size_t slots = word >> 32U;
  if (word != countWord(slots) || slots < kFirstSlots || slots > kMaxSlots)
    refuse("its number of slots is damaged");
  const std::size_t recorded = kHeaderBytes + slots * kSlotBytes;
  if (bytes < recorded) refuse(fmt::format("is cut short: {} of {} bytes", bytes, recorded));
  // An agent that was killed while the file grew leaves zero bytes behind the last slot.
  if (std::any_of(map_.get() + recorded, map_.get() + bytes,
                  [](std::byte byte) { return byte != std::byte{0}; })) {
    refuse("something foreign was appended");
  }
  return slots;
}

bool ChipFile::grow() {
  const std::size_t slots = std::min(slots_ + std::min(slots_, kMostNewSlots), kMaxSlots);
  if (slots == slots_) return false;
  const auto bytes = static_cast<off_t>(kHeaderBytes + slots * kSlotBytes);
  int failed = EINTR;
  while (failed == EINTR) failed = ::posix_fallocate(file_.number(), 0, bytes);
  if (failed != 0) return false;
  slots_ = slots;
  std::atomic_ref(*reinterpret_cast<std::uint64_t*>(map_.get() + kCountAt)).store(countWord(slots));
  return true;
}

}  // namespace KilnAgent
