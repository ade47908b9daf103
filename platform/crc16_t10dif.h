/* The hardware CRC16 T10-DIF engine, in the signature of ISA-L, which the process must provide before it loads libdif. */
#ifndef DIF_PLATFORM_CRC16_T10DIF_H
#define DIF_PLATFORM_CRC16_T10DIF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* CRC16 T10-DIF of `len` bytes continued from `seed`, plain (high byte of the CRC in the high byte of the result). */
uint16_t crc16_t10dif(uint16_t seed, const uint8_t *buf, uint64_t len);

#ifdef __cplusplus
}
#endif

#endif
