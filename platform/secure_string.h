/* Bounded string copy with the contract of C11 Annex K. */
#ifndef DIF_PLATFORM_SECURE_STRING_H
#define DIF_PLATFORM_SECURE_STRING_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies at most `count` characters of `src` and a terminating NUL into `dest` of `destMax` bytes. Returns 0; on a null
 * pointer or a text that does not fit, an error number, with `dest` the empty string where it can be written. A host whose
 * operators look at the library's registry while modules register writes `dest` in atomic bytes.
 */
int strncpy_s(char *dest, size_t destMax, const char *src, size_t count);

#ifdef __cplusplus
}
#endif

#endif
