/*
 * Preloaded into a program: every FAULT_EVERY-th of the calls below fails with the error number FAULT_ERRNO or, if that is
 * 0, moves half the bytes. FAULT_NAMED: files without names cannot be had. FAULT_COUNT: file for the number of calls made.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

static atomic_long calls;

static long setting(const char *name) {
    const char *text = getenv(name);
    return text == NULL ? 0 : atol(text);
}

/* Whether this call is one that is to fail. */
static bool isDue(void) {
    const long every = setting("FAULT_EVERY");
    const long call = ++calls;
    return every != 0 && call % every == 0;
}

/* Whether this call fails outright; else a due one only has `*size` halved. */
static bool fails(size_t *size) {
    if (!isDue()) {
        return false;
    }
    errno = (int)setting("FAULT_ERRNO");
    if (errno == 0 && size != NULL) {
        *size = (*size + 1) / 2;
    }
    return errno != 0;
}

static void *next(const char *name) {
    return dlsym(RTLD_NEXT, name);
}

#define REAL(name, result, ...)                                                                                        \
    result (*real)(__VA_ARGS__);                                                                                       \
    *(void **)&real = next(name)

ssize_t readv(int file, const struct iovec *vector, int used) {
    REAL("readv", ssize_t, int, const struct iovec *, int);
    struct iovec first = vector[0];
    const size_t whole = first.iov_len;
    return fails(&first.iov_len) ? -1 : first.iov_len == whole ? real(file, vector, used) : real(file, &first, 1);
}

ssize_t preadv(int file, const struct iovec *vector, int used, off_t offset) {
    REAL("preadv", ssize_t, int, const struct iovec *, int, off_t);
    struct iovec first = vector[0];
    const size_t whole = first.iov_len;
    return fails(&first.iov_len)    ? -1
           : first.iov_len == whole ? real(file, vector, used, offset)
                                    : real(file, &first, 1, offset);
}

ssize_t writev(int file, const struct iovec *vector, int used) {
    REAL("writev", ssize_t, int, const struct iovec *, int);
    struct iovec first = vector[0];
    const size_t whole = first.iov_len;
    return fails(&first.iov_len) ? -1 : first.iov_len == whole ? real(file, vector, used) : real(file, &first, 1);
}

ssize_t pwrite(int file, const void *bytes, size_t size, off_t offset) {
    REAL("pwrite", ssize_t, int, const void *, size_t, off_t);
    return fails(&size) ? -1 : real(file, bytes, size, offset);
}

int fsync(int file) {
    REAL("fsync", int, int);
    return fails(NULL) ? -1 : real(file);
}

int linkat(int fromDirectory, const char *from, int toDirectory, const char *to, int flags) {
    REAL("linkat", int, int, const char *, int, const char *, int);
    return fails(NULL) ? -1 : real(fromDirectory, from, toDirectory, to, flags);
}

int rename(const char *from, const char *to) {
    REAL("rename", int, const char *, const char *);
    return fails(NULL) ? -1 : real(from, to);
}

int renameat2(int fromDirectory, const char *from, int toDirectory, const char *to, unsigned flags) {
    REAL("renameat2", int, int, const char *, int, const char *, unsigned);
    return fails(NULL) ? -1 : real(fromDirectory, from, toDirectory, to, flags);
}

void *mmap(void *at, size_t size, int access, int flags, int file, off_t offset) {
    REAL("mmap", void *, void *, size_t, int, int, int, off_t);
    return file >= 0 && fails(NULL) ? MAP_FAILED : real(at, size, access, flags, file, offset);
}

int open(const char *path, int flags, ...) {
    REAL("open", int, const char *, int, ...);
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    if ((flags & O_TMPFILE) == O_TMPFILE && setting("FAULT_NAMED") != 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return real(path, flags, mode);
}

__attribute__((destructor)) static void tellCount(void) {
    const char *path = getenv("FAULT_COUNT");
    FILE *file = path == NULL ? NULL : fopen(path, "w");
    if (file != NULL) {
        fprintf(file, "%ld", calls);
        fclose(file);
    }
}
