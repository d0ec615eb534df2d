// Whether the tests run under the address sanitizer, whose allocator ends the process and whose checks slow loops down.
#ifndef PNVTEST_SANITIZED_H
#define PNVTEST_SANITIZED_H

namespace pnvtest {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

} // namespace pnvtest

#endif
