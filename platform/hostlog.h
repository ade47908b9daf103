/* The host log. Levels are severities, 0 the most severe. A message carries the caller's source place and one line. */
#ifndef DIF_PLATFORM_HOSTLOG_H
#define DIF_PLATFORM_HOSTLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void hostlog(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *funcName, uint32_t logId,
             const char *format, ...) __attribute__((format(printf, 7, 8)));

/* The same without a file name. */
void hostlog_standard(uint32_t moduleId, uint32_t level, const char *funcName, int32_t line, uint32_t logId,
                      const char *format, ...) __attribute__((format(printf, 6, 7)));

/* 0 if a message of that level from that module would be written, nonzero if it would be filtered. */
int32_t hostlog_level_check(uint32_t moduleId, uint32_t level);

#ifdef __cplusplus
}
#endif

#endif
