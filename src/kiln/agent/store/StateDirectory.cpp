#include "kiln/agent/store/StateDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "kiln/agent/io/InputError.h"

namespace KilnAgent {
namespace {

/// Marks the directory as an agent's; the lock is on this file.
constexpr std::string_view kMarker = "kiln-state";
constexpr std::string_view kContent = "KilnEmServer agent state 1\n";

}  // namespace

StateDirectory::StateDirectory(std::string path) : path_(std::move(path)) {
  const std::string marker = fmt::format("{}/{}", path_, kMarker);
  create(path_);
  refuseForeign(marker);
  lock(marker);
  claim();
  create(chip());
  makeContentPrivate();
  refuseEmptyStore();
}

/// The store is created before the tables' files: an empty store beside them means that its content was lost.
void StateDirectory::refuseEmptyStore() const {
  std::error_code error;
  const bool empty = std::filesystem::file_size(store(), error) == 0 && !error;
  const bool tables = !std::filesystem::is_empty(chip(), error) && !error;
  if (empty && tables) throw InputError(fmt::format("{}: is cut short; it is left as it is", store()));
}

void StateDirectory::refuse(const std::string& why) const {
  throw InputError(fmt::format("{}: {}", path_, why));
}

void StateDirectory::create(const std::string& directory) const {
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    refuse(fmt::format("cannot be created: {}", std::strerror(errno)));
  }
}

void StateDirectory::refuseForeign(const std::string& marker) const {
  std::error_code error;
  const std::filesystem::directory_iterator content(path_, error);
  if (error) refuse(fmt::format("is not a usable directory: {}", error.message()));
  if (content == std::filesystem::directory_iterator() || std::filesystem::exists(marker, error)) return;
  refuse(fmt::format("is not an agent's state directory, since it holds {}; it is left as it is",
                     content->path().filename().string()));
}

void StateDirectory::lock(const std::string& marker) {
  marker_ = FileDescriptor(::open(marker.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!marker_.valid() && errno == ELOOP) refuse(fmt::format("{} is a symbolic link", kMarker));
  if (!marker_.valid()) refuse(fmt::format("cannot be used: {}", std::strerror(errno)));
  if (::flock(marker_.number(), LOCK_EX | LOCK_NB) == 0) return;
  refuse(errno == EWOULDBLOCK ? "is in use by another agent"
                              : fmt::format("cannot be locked: {}", std::strerror(errno)));
}

/// An empty marker was left by an agent that was killed while creating it.
void StateDirectory::claim() const {
  std::array<char, kContent.size() + 1> read{};
  const auto length = ::pread(marker_.number(), read.data(), read.size(), 0);
  if (length < 0) refuse(fmt::format("cannot be read: {}", std::strerror(errno)));
  const std::string_view found(read.data(), static_cast<std::size_t>(length));
  if (found == kContent) return;
  if (!found.empty())
    refuse("is not an agent's state directory, or one of another version; it is left as it is");
  if (::pwrite(marker_.number(), kContent.data(), kContent.size(), 0) != std::ssize(kContent)) {
    refuse(fmt::format("cannot be written: {}", std::strerror(errno)));
  }
}

void StateDirectory::makePrivate(const std::string& path, bool directory) const {
  constexpr mode_t kOthers = 077;
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return;
  if (S_ISLNK(status.st_mode)) refuse(fmt::format("{} is a symbolic link", path));
  if (!(directory ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode)))
    refuse(fmt::format("{} is no {}", path, directory ? "directory" : "file"));
  if ((status.st_mode & kOthers) == 0 || ::chmod(path.c_str(), status.st_mode & 0700) == 0) return;
  refuse(fmt::format("{} cannot be made private: {}", path, std::strerror(errno)));
}

/// The directory itself is last: it may be reached by a symbolic link, its content may not.
void StateDirectory::makeContentPrivate() const {
  makePrivate(chip(), true);
  for (const auto& table : std::filesystem::directory_iterator(chip())) makePrivate(table.path(), false);
  makePrivate(store(), false);
  makePrivate(store() + "-lock", false);
  makePrivate(path_ + "/.", true);
  if (::fchmod(marker_.number(), 0600) != 0)
    refuse(fmt::format("cannot be made private: {}", std::strerror(errno)));
}

}  // namespace KilnAgent
