// The framing of a connection: however the bytes are divided into pieces, the lines are those of the whole
// text, and answers are received as they were sent.
#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "fuzz/Fuzz.h"
#include "fuzz/Scratch.h"
#include "kiln/agent/io/LineSocket.h"

namespace KilnFuzz {
namespace {

using KilnAgent::LineConnection;
using Line = LineConnection::Line;

/// The lines of `text`, split in one step.
std::vector<Line> linesOf(const std::string& text) {
  std::vector<Line> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    const bool cutOff = end == std::string::npos;
    Line line{lines.size() + 1, text.substr(begin, end - begin), false, cutOff};
    line.tooLong = line.text.size() > LineConnection::kMaxLine;
    lines.push_back(std::move(line));
    begin = cutOff ? text.size() : end + 1;
  }
  return lines;
}

/// A piece that a client sends: bytes, sometimes a run of one byte that makes lines too long.
std::string drawPiece(FuzzedDataProvider& input) {
  if (input.ConsumeIntegralInRange(0, 15) != 0) return input.ConsumeRandomLengthString(64);
  constexpr std::size_t kMost = std::size_t{3} << 19U;
  return std::string(input.ConsumeIntegralInRange<std::size_t>(0, kMost), 'x');
}

void takeAll(LineConnection& connection, std::vector<Line>& lines) {
  while (std::optional<Line> line = connection.takeLine()) {
    connection.send(std::to_string(line->number) + "\n");
    lines.push_back(std::move(*line));
  }
  connection.flush();
}

void check(const std::vector<Line>& expected, const std::vector<Line>& found, const std::string& answers) {
  KILN_ASSERT(expected.size() == found.size());
  std::string expectedAnswers;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    KILN_ASSERT(expected[i].number == found[i].number && expected[i].tooLong == found[i].tooLong);
    // A line that is too long is reported before its end.
    KILN_ASSERT(expected[i].tooLong ||
                (expected[i].text == found[i].text && expected[i].cutOff == found[i].cutOff));
    expectedAnswers += std::to_string(expected[i].number) + "\n";
  }
  KILN_ASSERT(answers == expectedAnswers);
}

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace KilnFuzz;
  FuzzedDataProvider input(data, size);
  auto [client, server] = connection();
  LineConnection lines(std::move(server));
  std::vector<Line> found;
  std::string sent;
  std::string answers;
  while (input.remaining_bytes() != 0) {
    std::string piece = drawPiece(input);
    sent += piece;
    while (!piece.empty()) {
      const ssize_t count = ::send(client.number(), piece.data(), piece.size(), MSG_NOSIGNAL);
      if (count > 0) piece.erase(0, static_cast<std::size_t>(count));
      lines.receive();
      takeAll(lines, found);
      answers += received(client);
    }
  }
  ::shutdown(client.number(), SHUT_WR);
  while (!lines.exhausted()) {
    lines.receive();
    takeAll(lines, found);
    answers += received(client);
  }
  check(linesOf(sent), found, answers);
  return 0;
}
