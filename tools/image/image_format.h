/* What an image is, judged by what stands where its fields would be. */
#ifndef IMAGE_IMAGE_FORMAT_H
#define IMAGE_IMAGE_FORMAT_H

#include "image/block_format.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace image {

/* By the low half of an image's first LBA: how many blocks agree with it. */
class FirstLbas {
public:
    void add(uint32_t first);

    bool empty() const { return blocks_.empty(); }

    /* How many agree with `first`. */
    uint64_t of(uint32_t first) const;

    /* What more than half of them agree with; none if there is no such majority. */
    std::optional<uint32_t> majority() const;

private:
    std::map<uint32_t, uint64_t> blocks_;
    uint64_t all_ = 0;
};

/* How well the image fits a block size. Blocks of zeros tell nothing and count as unwritten alone. */
struct FormatEvidence {
    const BlockFormat *format;
    uint64_t unwritten = 0;
    uint64_t blocks = 0; /* others looked at */
    uint64_t proven = 0; /* with the guard that the version names */
    uint64_t fields = 0; /* with what may be a field: those, and fields with damage or without a guard */
    uint64_t t10 = 0;    /* with this guard, whatever the version */
    uint64_t crc32c = 0;
    uint64_t bst = 0; /* with this mark, of the fields */
    FirstLbas lbas{};
    FirstLbas
        standardTags{}; /* the reference tags of fields with the guard t10 and no version, as plain T10 ones are */

    /* Whether it is plain T10 protection information: most fields' reference tags agree, without a version. */
    bool isStandard() const;

    /* The low half of the first LBA according to most blocks that have one; none if there is no such majority. */
    std::optional<uint32_t> firstLba() const { return isStandard() ? standardTags.majority() : lbas.majority(); }

    /* Whether some block agrees that `lba` is the image's first. */
    bool allowsFirstLba(uint64_t lba) const {
        return (isStandard() ? standardTags : lbas).of(static_cast<uint32_t>(lba)) != 0;
    }

    /* "blocks of 520 bytes with guard t10 and LBAs from 100" */
    std::string text() const;
};

struct ImageFormat {
    bool holdsData = false; /* not only zeros */
    std::array<FormatEvidence, 2> evidence{{{&kFormat520}, {&kFormat4160}}};

    /* The block size that the image has; none if it shows no fields. */
    const FormatEvidence *best() const;
};

/* An image as far as it takes to look at it. */
class Reader {
public:
    virtual uint64_t length() = 0;
    /* What there is of the `size` bytes at `offset`: how many. Throws. */
    virtual uint64_t read(uint64_t offset, uint8_t *bytes, uint64_t size) = 0;
    /* The first offset from `offset` on that is not in a hole; the length if there is none. */
    virtual uint64_t nextData(uint64_t offset) = 0;

    Reader() = default;
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

protected:
    ~Reader() = default;
};

/* At how much of an image to look. */
enum class Extent { kSample, kAll };

/*
 * Looks at blocks all over the image: at all of a small one, at the first that are not zero where it is thin. What damage
 * leaves of a field counts too, so that a damaged image is still recognised. Throws what the reader throws.
 */
ImageFormat lookAtFormat(Reader &reader, Extent extent = Extent::kSample);

} // namespace image

#endif
