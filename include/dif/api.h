/* How a declaration becomes part of libdif's binary interface: C linkage and default visibility. */
#ifndef DIF_API_H
#define DIF_API_H

#ifdef __cplusplus
#define DIF_BEGIN_DECLS extern "C" {
#define DIF_END_DECLS }
#else
#define DIF_BEGIN_DECLS
#define DIF_END_DECLS
#endif

/* Marks a name that libdif.so exports. Everything else in the library is hidden. */
#define DIF_API __attribute__((visibility("default")))

#endif
