// The file in which one software table keeps its entries: slots of one size, mapped into memory.
//
// The chip outlives its agent, so an agent that is killed at any instruction must leave a consistent file.
// This class handles the file as such: its owner, its layout, its growth. The content of a slot, and its
// atomic change from the old to the new, is the responsibility of the user.
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
  /// 4 GiB of slots: reserved address space, not memory.
  static constexpr std::size_t kMaxSlots = std::size_t{1} << 26U;
  /// The longest description of a slot's layout.
  static constexpr std::size_t kMaxLayout = 2048;

  /// Opens the file, or creates it if it does not exist. `layout` describes the content of a slot. Throws
  /// InputError if the file cannot be used, is of another kind, has other slots or is truncated; the file is
  /// then not changed.
  ChipFile(std::string path, std::string_view layout);
  ~ChipFile() = default;
  ChipFile(const ChipFile&) = delete;
  ChipFile& operator=(const ChipFile&) = delete;

  /// Current number of slots.
  [[nodiscard]] std::size_t slots() const { return slots_; }
  [[nodiscard]] std::byte* slot(std::size_t at) const { return map_.get() + kHeaderBytes + at * kSlotBytes; }
  /// Appends slots. False if the disk or the address space is full.
  bool grow();
  /// Throws InputError with the reason why the file is not used.
  [[noreturn]] void refuse(std::string_view why) const;

 private:
  static constexpr std::size_t kHeaderBytes = 4096;
  static constexpr std::size_t kFirstSlots = 1024;
  static constexpr std::size_t kMostNewSlots = 65536;

  struct Unmap {
    void operator()(std::byte* map) const;
  };

  void create(std::string_view layout) const;
  /// Returns the file's size in bytes.
  std::size_t open();
  void checkHeader(std::string_view layout) const;
  [[nodiscard]] std::size_t recordedSlots(std::size_t bytes) const;

  std::string path_;
  FileDescriptor file_;
  std::unique_ptr<std::byte, Unmap> map_;
  std::size_t slots_ = 0;
};

}  // namespace KilnAgent
