/*
 * strncpy_s of C11 Annex K (K.3.7.1.4), without a constraint handler: a violation only shows in the result. Threads may
 * read `dest` meanwhile, byte by byte and atomically: names of verify points are shown while modules register theirs.
 */
#include "platform/secure_string.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kRsizeMax = SIZE_MAX >> 1;

bool overlap(const char *a, size_t aSize, const char *b, size_t bSize) {
    const auto aStart = reinterpret_cast<uintptr_t>(a);
    const auto bStart = reinterpret_cast<uintptr_t>(b);
    return aStart < bStart + bSize && bStart < aStart + aSize;
}

void store(char &to, char value) {
    std::atomic_ref{to}.store(value, std::memory_order_relaxed);
}

int refuse(char *dest, int error) {
    store(dest[0], '\0');
    return error;
}

} // namespace

int strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    if (dest == nullptr) {
        return EINVAL;
    }
    if (destMax == 0 || destMax > kRsizeMax) {
        return ERANGE;
    }
    if (src == nullptr) {
        return refuse(dest, EINVAL);
    }
    if (count > kRsizeMax) {
        return refuse(dest, ERANGE);
    }
    const size_t length = strnlen(src, std::min(count, destMax));
    if (length == destMax) {
        return refuse(dest, ERANGE);
    }
    const size_t bytesRead = std::min(count, length + 1);
    if (overlap(dest, length + 1, src, bytesRead)) {
        return refuse(dest, EINVAL);
    }
    for (size_t i = 0; i < length; ++i) {
        store(dest[i], src[i]);
    }
    store(dest[length], '\0');
    return 0;
}
