// The directory of the state that outlives an agent's process.
#pragma once

#include <string>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// Belongs to one agent at a time, which holds its lock as long as this object, or its process, lives. Only
/// its owner can read it, or take the lock: the rights of others on existing directories and files are
/// removed.
class StateDirectory {
 public:
  /// Opens the directory, or creates it if it does not exist. Throws InputError if it cannot be used, is in
  /// use, or holds files that no agent created; they are then not changed.
  explicit StateDirectory(std::string path);

  /// Path of the store's file, which is absent or a regular file.
  [[nodiscard]] std::string store() const { return path_ + "/store"; }
  /// Path of the directory of the tables' files, which exists.
  [[nodiscard]] std::string chip() const { return path_ + "/chip"; }
  /// The default path of the agent's socket.
  static std::string socketIn(const std::string& directory) { return directory + "/socket"; }

 private:
  [[noreturn]] void refuse(const std::string& why) const;
  void create(const std::string& directory) const;
  void refuseForeign(const std::string& marker) const;
  /// Removes the rights of everyone but the owner. Does nothing if `path` is absent.
  void makePrivate(const std::string& path, bool directory) const;
  void makeContentPrivate() const;
  void lock(const std::string& marker);
  void claim() const;
  void refuseEmptyStore() const;

  std::string path_;
  FileDescriptor marker_;
};

}  // namespace KilnAgent
