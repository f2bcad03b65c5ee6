// The directory in which an agent keeps what outlives its process.
#pragma once

#include <string>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// Belongs to one agent at a time, which holds its lock as long as this object, or its process, lives. Only
/// its owner can read it, or take the lock: what others may do with directories and files that exist already
/// is taken from them.
class StateDirectory {
 public:
  /// Opens the directory, or creates it where there is none. Throws InputError where it cannot be used, is in
  /// use, or holds something that no agent put there; that is then left as it is.
  explicit StateDirectory(std::string path);

  /// Path of the store's file, which is absent or a regular file.
  [[nodiscard]] std::string store() const { return path_ + "/store"; }
  /// A directory, which exists.
  [[nodiscard]] std::string chip() const { return path_ + "/chip"; }
  /// Where the agent of a directory listens unless it is told otherwise.
  static std::string socketIn(const std::string& directory) { return directory + "/socket"; }

 private:
  [[noreturn]] void refuse(const std::string& why) const;
  void create(const std::string& directory) const;
  void refuseForeign(const std::string& marker) const;
  /// Leaves the rights of everyone but the owner away. Does nothing if `path` is absent.
  void makePrivate(const std::string& path, bool directory) const;
  void makeContentPrivate() const;
  void lock(const std::string& marker);
  void claim() const;
  void refuseEmptyStore() const;

  std::string path_;
  FileDescriptor marker_;
};

}  // namespace KilnAgent
