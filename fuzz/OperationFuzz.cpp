// A scenario's line: an operation is read again from its own line as the same operation; any other line is an
// input error.
#include "fuzz/Fuzz.h"
#include "kiln/agent/scenario/Operation.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KilnFuzz::refusalOf([&] {
    const KilnAgent::Operation operation = KilnAgent::parseOperation(KilnFuzz::textIn(data, size));
    const std::string line = KilnAgent::operationLine(operation);
    KILN_ASSERT(line.find('\n') == std::string::npos);
    std::string again;
    KILN_ASSERT(
        !KilnFuzz::refusalOf([&] { again = KilnAgent::operationLine(KilnAgent::parseOperation(line)); }));
    KILN_ASSERT(again == line);
  });
  return 0;
}
