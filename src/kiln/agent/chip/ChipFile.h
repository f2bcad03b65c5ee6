// The file in which one software table keeps its entries: slots of one size, mapped into memory.
//
// The chip outlives its agent, so what an agent that is killed at any instruction leaves behind must be
// whole. This class sees to the file as such: whose it is, what lies in it, how it grows. What is in a slot,
// and how that changes at once from the old to the new, is its user's affair.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// A mapped file of slots. New slots are zero. Slots never move while it is open.
class ChipFile {
 public:
  static constexpr std::size_t kSlotBytes = 64;
  /// 4 GiB of slots: address space that is set aside, not memory.
  static constexpr std::size_t kMaxSlots = std::size_t{1} << 26U;
  /// The longest description of a slot's layout.
  static constexpr std::size_t kMaxLayout = 2048;

  /// Opens the file, or creates it where there is none. `layout` describes what lies in a slot. Throws
  /// InputError where the file cannot be used, is not such a file, has other slots or is cut short; it is
  /// then left as it is.
  ChipFile(std::string path, std::string_view layout);
  ~ChipFile() = default;
  ChipFile(const ChipFile&) = delete;
  ChipFile& operator=(const ChipFile&) = delete;

  /// Slots that the file has now.
  [[nodiscard]] std::size_t slots() const { return slots_; }
  [[nodiscard]] std::byte* slot(std::size_t at) const { return map_.get() + kHeaderBytes + at * kSlotBytes; }
  /// Appends slots. False where there is no room for more, on the disk or in the address space.
  bool grow();
  /// Throws InputError: the file is not used, and why.
  [[noreturn]] void refuse(std::string_view why) const;

 private:
  static constexpr std::size_t kHeaderBytes = 4096;
  static constexpr std::size_t kFirstSlots = 1024;
  static constexpr std::size_t kMostNewSlots = 65536;

  struct Unmap {
    void operator()(std::byte* map) const;
  };

  void create(std::string_view layout) const;
  /// Returns how many bytes the file has.
  std::size_t open();
  void checkHeader(std::string_view layout) const;
  [[nodiscard]] std::size_t recordedSlots(std::size_t bytes) const;

  std::string path_;
  FileDescriptor file_;
  std::unique_ptr<std::byte, Unmap> map_;
  std::size_t slots_ = 0;
};

}  // namespace KilnAgent
