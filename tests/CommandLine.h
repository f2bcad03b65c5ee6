// The command line, as a user runs it.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/Golden.h"
#include "tests/TempDirectory.h"

namespace KilnTest {

/// A test with a directory of its own, which runs kiln-agent.
class CommandLine : public testing::Test {
 protected:
  struct Result {
    int code;
    std::string out;
    std::string err;
  };
  /// Redirections among the arguments replace those to `out` and `err`.
  Result run(const std::string& arguments) const {
    const std::string redirected = " >" + (directory / "out") + " 2>" + (directory / "told") + " ";
    const int status = std::system((binary() + redirected + arguments).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readWhole(directory / "out"),
            readWhole(directory / "told")};
  }
  /// The agent that is built with the tests.
  static std::string binary() {
    std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe");
    std::string name = path.filename();
    return path.replace_filename(name.replace(0, std::string("kiln-tests").size(), "kiln-agent"));
  }
  /// Writes a file; returns its path.
  std::string write(const std::string& file, const std::string& text) const {
    writeFile(directory / file, text);
    return directory / file;
  }

  TempDirectory directory;
};

}  // namespace KilnTest
