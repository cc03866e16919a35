#pragma once

// What this program was built with. The compilers tell it in different ways.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KELO_WITH_THREAD_SANITIZER 1
#endif
#if __has_feature(address_sanitizer)
#define KELO_WITH_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define KELO_WITH_THREAD_SANITIZER 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KELO_WITH_ADDRESS_SANITIZER 1
#endif

#if defined(KELO_WITH_THREAD_SANITIZER) || defined(KELO_WITH_ADDRESS_SANITIZER)
#define KELO_WITH_SANITIZER 1
#endif
