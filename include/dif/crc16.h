/*
 * CRC16 T10-DIF, the guard of the T10 protection information model: polynomial 0x8BB7, most significant bit first, no
 * reflection, no final XOR. The CRC of "123456789" from seed 0 is 0xD0DB. All functions are reentrant.
 */
#ifndef DIF_CRC16_H
#define DIF_CRC16_H

#include "dif/api.h"

#include <stdint.h>

DIF_BEGIN_DECLS

/* CRC of `len` bytes continued from `seed`, one table lookup a byte; `len` below 2^32. Needs no initialisation. */
DIF_API uint16_t calcT10DifCrcByTable(uint16_t seed, const uint8_t *buf, uint64_t len);

/* 1 if the processor has SSE3 and PCLMULQDQ, which the hardware engine needs, else 0. */
DIF_API uint32_t _cpu_has_sse3_clmul(void);

/*
 * CRC of `len` bytes by the chosen engine, with its two bytes exchanged: a little-endian 16-bit store of the result puts
 * the CRC into memory big-endian, as a tuple keeps it. `seed` is in plain form. Returns `seed` as it is if `buf` is null
 * or `len` is 0; otherwise an engine must have been chosen (difModuleInit does).
 */
DIF_API uint16_t crc16T10Dif(uint16_t seed, const uint8_t *buf, uint32_t len);

/* Chooses the hardware engine, the host's crc16_t10dif, without looking at the processor. */
DIF_API void setCrc16Func(void);

/* Chooses the hardware engine where the processor supports it, else the table, and logs the choice. */
DIF_API void initCrc16T10Func(void);

DIF_END_DECLS

#endif
