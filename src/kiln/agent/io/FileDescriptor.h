// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace KilnAgent {

/// Closes its descriptor when destroyed. A negative descriptor means none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  [[nodiscard]] bool valid() const { return number_ >= 0; }
  [[nodiscard]] int number() const { return number_; }
  void reset() {
    if (valid()) ::close(std::exchange(number_, -1));
  }

 private:
  int number_ = -1;
};

}  // namespace KilnAgent
