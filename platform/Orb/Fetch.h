#pragma once

// Asks for memory before it is needed. Who looks up many things in more memory than the caches hold
// waits for one line after the other; asked for at once, they all come in the time of a few. Hence
// the functions named fetch...: they change nothing, and nothing but time depends on them. Any
// address will do, also a wrong one. Usable from any thread.

namespace Orb {

// The cache line at the address, to be read. (The compiler's own function would not do: g++ drops
// calls of functions that do nothing else, since they have no effect that it knows of.)
inline void fetchLine(const void* address) {
#if defined(__x86_64__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(address)));
#elif defined(__aarch64__)
  asm volatile("prfm pldl1keep, %0" : : "Q"(*static_cast<const char*>(address)));
#else
  __builtin_prefetch(address);
#endif
}

// The same, to be written: a line that another core has looked at would otherwise be asked for
// twice.
inline void fetchLineToWrite(const void* address) {
#if defined(__x86_64__)
  // Every processor of 64 bits takes it; the built-in would do without unless told so.
  asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(address)));
#elif defined(__aarch64__)
  asm volatile("prfm pstl1keep, %0" : : "Q"(*static_cast<const char*>(address)));
#else
  __builtin_prefetch(address, 1);
#endif
}

}  // namespace Orb
