// Checks two requests with the library. Unused parameters and shadowed names would be refused by the
// library's own flags.
#include <cstdlib>
#include <iostream>
#include <string>

#include "kiln/platform/Value.h"
#include "kiln/server/CheckRequest.h"

#if __has_include("tests/TestSupport.h") || __has_include("sim/Run.h") || __has_include("platform/EmKeys.h")
#error "inherits include directories that are not the library's"
#endif

namespace {

using namespace KilnTunnelNiLib;

std::string problemOf(std::uint16_t vlanId, int notUsed) {
  const IsemEntryKey key{{}, {}, Isem1TagComposerKey{1, 1, vlanId}};
  if (const int vlanId = 0; vlanId == 0) {
    return KilnEmServer::checkRequest<Isem>(key, {{Isem1TagEntry{}}, 1, RequestKind::add}).value_or("");
  }
  return {};
}

}  // namespace

int main() {
  const std::string text = KilnPlatform::textOf(Isem1TagComposerKey{1, 2, 3});
  const std::string problem = problemOf(5000, 0);
  std::cout << text << "\n" << problem << "\n";
  const bool asExpected = text.find("vlanId: 3") != std::string::npos && problemOf(4095, 0).empty() &&
                          problem == "vlanId is 5000, but the hardware holds at most 4095";
  return asExpected ? EXIT_SUCCESS : EXIT_FAILURE;
}
