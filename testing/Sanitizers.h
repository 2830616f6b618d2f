#pragma once

// Whether this program was built with a sanitizer, whose own instructions, system calls and memory
// come on top of what a test would count.

namespace Testing {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORU_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORU_SANITIZED
#endif

#ifdef KORU_SANITIZED
inline constexpr bool sanitized = true;
#undef KORU_SANITIZED
#else
inline constexpr bool sanitized = false;
#endif

}  // namespace Testing
