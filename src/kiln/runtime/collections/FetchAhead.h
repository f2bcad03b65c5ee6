// Memory that will be needed soon.
#pragma once

namespace KilnEmServer {

/// Fetches the line of the cache in which the address lies; any address will do.
inline void fetchAhead(const void* address) {
  __builtin_prefetch(address);
  // g++ takes a function that only fetches ahead for one without effect, and drops the calls of it.
  asm volatile("");
}

}  // namespace KilnEmServer
