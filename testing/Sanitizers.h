#pragma once

// Whether this program was built with a sanitizer, whose own instructions, system calls and memory
// come on top of what a test would count. The thread sanitizer also takes signals for itself.

namespace Testing {

#if defined(__has_feature)
#define KORU_FEATURE(x) __has_feature(x)
#else
#define KORU_FEATURE(x) 0
#endif

#if defined(__SANITIZE_THREAD__) || KORU_FEATURE(thread_sanitizer)
inline constexpr bool threadSanitized = true;
#else
inline constexpr bool threadSanitized = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || KORU_FEATURE(address_sanitizer)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = threadSanitized;
#endif

#undef KORU_FEATURE

}  // namespace Testing
