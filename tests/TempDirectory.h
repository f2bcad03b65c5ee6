// A directory for one test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace KilnTest {

/// Exists as long as the object.
class TempDirectory {
 public:
  TempDirectory() : path_(testing::TempDir() + "kiln-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~TempDirectory() { std::filesystem::remove_all(path_); }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  /// The path of a file in it.
  [[nodiscard]] std::string operator/(const std::string& file) const { return path_ + "/" + file; }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace KilnTest
