// Whether this program runs under a sanitizer, whose own allocator and shadow memory make some
// measurements meaningless.
#ifndef XEL_TESTS_FOUNDATION_SANITIZED_H
#define XEL_TESTS_FOUNDATION_SANITIZED_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define XEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define XEL_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define XEL_THREAD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define XEL_THREAD_SANITIZED 1
#endif
#endif
#ifndef XEL_THREAD_SANITIZED
#define XEL_THREAD_SANITIZED 0
#endif
#ifndef XEL_SANITIZED
#define XEL_SANITIZED 0
#endif

constexpr bool kSanitized = XEL_SANITIZED != 0;

// ThreadSanitizer maps memory before it is ready for an instrumented mmap in front of the real one.
constexpr bool kMmapCanFail = XEL_THREAD_SANITIZED == 0;

#endif // XEL_TESTS_FOUNDATION_SANITIZED_H
