/* CRC16 T10-DIF in software, a byte a table lookup. */
#include "dif/crc16.h"

#include <array>

namespace {

constexpr uint16_t kPolynomial = 0x8BB7;

/* Entry i is the register that `i << 8` becomes in eight rounds of the polynomial. */
constexpr std::array<uint16_t, 256> makeTable() {
    std::array<uint16_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t reg = i << 8;
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg << 1) ^ ((reg & 0x8000) != 0 ? kPolynomial : 0);
        }
        table[i] = static_cast<uint16_t>(reg);
    }
    return table;
}

constexpr std::array<uint16_t, 256> kTable = makeTable();
static_assert(kTable[1] == kPolynomial);

} // namespace

uint16_t calcT10DifCrcByTable(uint16_t seed, const uint8_t *buf, uint64_t len) {
    uint16_t reg = seed;
    for (uint64_t i = 0; i < len; ++i) {
        reg = static_cast<uint16_t>((reg << 8) ^ kTable[(reg >> 8) ^ buf[i]]);
    }
    return reg;
}
