/* The host's OS-abstraction layer: ticks, clock, CRC32C, module names. */
#ifndef DIF_PLATFORM_OSAL_H
#define DIF_PLATFORM_OSAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The tick counter that rate limits are counted in: 250 ticks a second. */
uint64_t osal_get_jiffies(void);

/* A monotonic clock in nanoseconds. */
uint64_t osal_time_getnanosec(void);

/* The CRC32C of iSCSI: reflected polynomial 0x82F63B78, initial value and final XOR all ones. */
uint32_t osal_crc32c(const uint8_t *data, uint32_t len);

/* Continues a CRC32C register over `len` bytes; inverts it neither on entry nor on exit. */
uint32_t osal_crc32cContinue(uint32_t reg, const uint8_t *data, uint32_t len);

/* Registers a short name for a module id. */
void osal_pid_set_name(uint32_t moduleId, const char *name);

#ifdef __cplusplus
}
#endif

#endif
