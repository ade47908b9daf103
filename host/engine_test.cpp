/* Do the checksum engines that this process has ended up with compute what they should? */
#include "dif/crc16.h"
#include "dif_host.h"
#include "platform/crc16_t10dif.h"
#include "platform/osal.h"

#include <array>
#include <cerrno>
#include <cstdio>

namespace {

/* Enough for every path of a vectorised engine, over bytes that repeat only after 251. */
constexpr auto kSample = [] {
    std::array<uint8_t, 4096 + 15> sample{};
    for (size_t i = 0; i < sample.size(); ++i) {
        sample[i] = static_cast<uint8_t>(i * 7 % 251);
    }
    return sample;
}();

/* Both bit by bit. */
constexpr uint32_t t10Of(const uint8_t *data, size_t size) {
    uint32_t reg = 0;
    for (size_t i = 0; i < size; ++i) {
        reg ^= uint32_t{data[i]} << 8;
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg << 1 ^ ((reg & 0x8000) != 0 ? 0x8BB7U : 0U)) & 0xFFFF;
        }
    }
    return reg;
}

constexpr uint32_t crc32cOf(const uint8_t *data, size_t size) {
    uint32_t reg = ~0U;
    for (size_t i = 0; i < size; ++i) {
        reg ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            reg = reg >> 1 ^ ((reg & 1) != 0 ? 0x82F63B78U : 0U);
        }
    }
    return ~reg;
}

constexpr std::array<uint8_t, 9> kDigits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
static_assert(t10Of(kDigits.data(), kDigits.size()) == 0xD0DB);
static_assert(crc32cOf(kDigits.data(), kDigits.size()) == 0xE3069283);

struct Answer {
    size_t offset;
    size_t size;
    uint32_t t10;
    uint32_t crc32c;
};

template <size_t Offset, size_t Size>
constexpr Answer kAnswer{Offset, Size, t10Of(kSample.data() + Offset, Size), crc32cOf(kSample.data() + Offset, Size)};

constexpr std::array kAnswers{kAnswer<0, 1>,   kAnswer<1, 15>,   kAnswer<3, 77>,   kAnswer<0, 256>,
                              kAnswer<0, 512>, kAnswer<13, 777>, kAnswer<0, 4096>, kAnswer<15, 4096>};

bool isWrong(const char *engine, const Answer &answer, uint32_t expected, uint32_t found, char *why, size_t size) {
    if (found == expected) {
        return false;
    }
    std::snprintf(why, size, "the checksum engine %s answers 0x%x for %zu bytes, expected 0x%x", engine, found,
                  answer.size, expected);
    return true;
}

} // namespace

int difHostTestEngines(char *why, size_t size) {
    const bool hasHardware = _cpu_has_sse3_clmul() != 0;
    for (const Answer &answer : kAnswers) {
        const uint8_t *const data = kSample.data() + answer.offset;
        if ((hasHardware &&
             isWrong("crc16_t10dif", answer, answer.t10, crc16_t10dif(0, data, answer.size), why, size)) ||
            isWrong("osal_crc32c", answer, answer.crc32c, osal_crc32c(data, static_cast<uint32_t>(answer.size)), why,
                    size)) {
            return EIO;
        }
    }
    return 0;
}
