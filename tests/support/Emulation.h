// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_EMULATION_H
#define TAVREN_TEST_EMULATION_H

#include <cstdlib>
#include <cstring>

namespace tavren {
namespace test {

/**
 * True when the tests run under qemu-user, as in a cross build's test run
 * (the toolchain files and scripts/cross-build.sh set TAVREN_UNDER_EMULATION).
 */
inline bool underEmulation() {
    const char* value = std::getenv("TAVREN_UNDER_EMULATION");
    return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

/** Whether the process runs under valgrind (scripts/memcheck.sh), which preloads its own allocator. */
inline bool underValgrind() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded && std::strstr(preloaded, "vgpreload");
}

/** Whether this build has AddressSanitizer or ThreadSanitizer, which make each step several times slower. */
inline bool sanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

/** True where every step takes far longer than on the machine itself: qemu-user, valgrind or a sanitizer. */
inline bool slowedDown() { return underEmulation() || underValgrind() || sanitized(); }

} // namespace test
} // namespace tavren

// Skips a test that cannot mean anything under qemu-user, with the reason.
#define SKIP_UNDER_EMULATION(reason)                                                                                   \
    if (tavren::test::underEmulation()) GTEST_SKIP() << "under emulation: " << reason

#endif
