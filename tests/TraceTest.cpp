// The trace facility: which messages pass, the cost of disabled ones, and the sinks.
#include "kiln/runtime/trace/Trace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

struct Formatted {
  int* times;
};

}  // namespace
}  // namespace KilnTest

template <>
struct fmt::formatter<KilnTest::Formatted> : fmt::formatter<int> {
  template <class Context>
  auto format(const KilnTest::Formatted& value, Context& context) const {
    return fmt::formatter<int>::format(++*value.times, context);
  }
};

namespace KilnTest {
namespace {

TEST(Trace, OnlyEnabledLevelsAreFormatted) {
  int times = 0;
  const Tracer tracer("stageA");
  tracer.trace<0>("no sink {}", Formatted{&times});
  EXPECT_EQ(times, 0);
  TraceCapture capture(6);
  tracer.trace<6>("six {}", Formatted{&times});
  tracer.trace<7>("seven {}", Formatted{&times});
  EXPECT_EQ(times, 1);
  ASSERT_EQ(capture.messages().size(), 1u);
  const auto& message = capture.messages().front();
  EXPECT_EQ(message.text, "six 1");
  EXPECT_EQ(message.format, "six {}");
  EXPECT_EQ(message.level, 6);
  EXPECT_EQ(message.stage, "stageA");
}

TEST(Trace, LastMatchingFilterDecides) {
  TraceCapture capture(0);
  const Tracer conflict("emConflictSmStage");
  const Tracer merge("emKeyMergeSmStage");
  TraceFacility::instance().stageLevelIs("em", 9);
  TraceFacility::instance().stageLevelIs("Conflict", 1);
  const Tracer later("emStatusSmStage");  // created after the filters
  for (const Tracer* tracer : {&conflict, &merge, &later}) tracer->trace<5>("five");
  EXPECT_EQ(capture.count(5, "five"), 2u);
  for (const auto& message : capture.messages()) EXPECT_NE(message.stage, "emConflictSmStage");
  TraceFacility::instance().stageLevelDelAll();
  merge.trace<5>("again");
  EXPECT_EQ(capture.count(5, "again"), 0u);
}

TEST(Trace, RingKeepsTheLastMessages) {
  RingTraceSink ring(3);
  for (const char* text : {"a", "b", "c", "d"}) ring.write({TraceDescriptor{1, text}, "stage", text});
  ASSERT_EQ(ring.messages().size(), 3u);
  EXPECT_EQ(ring.messages().front().text, "b");
  EXPECT_EQ(ring.count("d"), 1u);
}

TEST(Trace, FileSinkWritesLinesOfItsOwn) {
  const std::string path = testing::TempDir() + "kiln-trace-test";
  {
    FileTraceSink sink(path);
    sink.write({TraceDescriptor{7, "x {}"}, "stage", "x 1"});
  }
  std::ifstream file(path);
  std::string line;
  ASSERT_TRUE(std::getline(file, line));
  EXPECT_EQ(line, "7 stage x 1");
  std::remove(path.c_str());
  EXPECT_THROW(FileTraceSink("/nowhere/at/all"), std::runtime_error);
}

}  // namespace
}  // namespace KilnTest
