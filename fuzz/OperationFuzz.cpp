// A scenario's line: what is an operation stands as the same one in its own line, what is none is an input
// error.
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
