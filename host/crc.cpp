/* CRC32C by ISA-L, whose routine continues a plain register just as osal_crc32cContinue does. */
#include "platform/osal.h"

#include <isa-l/crc.h>

namespace {

/* ISA-L takes the length as an int. A multiple of 8 keeps the later pieces aligned as the first. */
constexpr uint32_t kMaxPiece = 1u << 30;

} // namespace

uint32_t osal_crc32cContinue(uint32_t reg, const uint8_t *data, uint32_t len) {
    /* ISA-L's parameter lacks the const; it only reads. */
    auto *next = const_cast<uint8_t *>(data);
    for (; len > kMaxPiece; len -= kMaxPiece) {
        reg = crc32_iscsi(next, kMaxPiece, reg);
        next += kMaxPiece;
    }
    return crc32_iscsi(next, static_cast<int>(len), reg);
}

uint32_t osal_crc32c(const uint8_t *data, uint32_t len) {
    return ~osal_crc32cContinue(~0u, data, len);
}
