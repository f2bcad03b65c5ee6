// Files under tests/golden with expected output, and the comparable form of the dump.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/report/Dump.h"

namespace KilnTest {

inline std::string readWhole(const std::string& path) {
  const std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// Compares `actual` with a golden file. With KILN_UPDATE_GOLDEN set in the environment the file is written
/// instead.
inline void expectGolden(const std::string& name, const std::string& actual) {
  const std::string path = std::string(KILN_SOURCE_DIR) + "/tests/golden/" + name;
  if (std::getenv("KILN_UPDATE_GOLDEN") != nullptr) {
    std::ofstream(path) << actual;
    FAIL() << path << " was written anew; look at the change and run again without KILN_UPDATE_GOLDEN";
  }
  EXPECT_EQ(readWhole(path), actual) << "Where the change is meant, write " << path
                                     << " anew by running this test with KILN_UPDATE_GOLDEN=1 and commit it.";
}

/// The dump without the row with the number of writes to the hardware.
inline std::string dumpWithoutHardware(const KilnAgent::EmbeddedAgent& agent) {
  std::istringstream lines(KilnAgent::dumpText(agent));
  std::string dump;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("\"hardware\":")) dump += line + "\n";
  }
  return dump;
}

}  // namespace KilnTest
