// Prefetching into the processor's cache.
#pragma once

namespace KilnEmServer {

/// Prefetches the cache line of the address; any address is allowed.
inline void prefetchLine(const void* address) {
  __builtin_prefetch(address);
  // Without it g++ treats a function that only prefetches as one without effect, and removes its calls.
  asm volatile("");
}

}  // namespace KilnEmServer
