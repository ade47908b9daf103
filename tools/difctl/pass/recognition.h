/* What an image is: as the command line says and, where it says nothing, as the image shows. */
#ifndef DIFCTL_RECOGNITION_H
#define DIFCTL_RECOGNITION_H

#include "image/image_format.h"
#include "io/image_file.h"
#include "pass/block_format.h"
#include "pass/request.h"

#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

/* What the command line says about an image, beside what its check wants. */
struct Claims {
    std::optional<uint32_t> blockSize;
    std::optional<uint64_t> firstLba;
    std::optional<uint64_t> entryBytes;
    bool mayBeStandard = false; /* the command has an option for plain T10 fields */
};

struct Recognition {
    image::ImageFormat looks;
    BlockFormat format;
    uint64_t firstLba;

    /* "blocks of 520 bytes, LBAs from 0" */
    std::string text(bool lbas) const;
};

/*
 * Looks at the image, of a stream at its first blocks. What is not said is as it shows; where it shows nothing, 520-byte
 * blocks from LBA 0. Throws Error, with the values that fit, for claims that contradict its fields:
 * always for another block size; for other LBAs, guards or plain T10 fields not if `force`.
 */
Recognition recognise(const ImageFile &file, const Claims &claims, const CheckOptions &check, bool force = false);

/* Throws Error if `said` means guards of `version` and the image shows none of them but others. */
void requireGuard(const ImageFile &file, const image::FormatEvidence &looks, uint8_t version, const std::string &said);

/* What the image looks like as far as `extent` goes, without what cannot be read if not all of that is. */
image::ImageFormat lookAt(const ImageFile &file, image::Extent extent, bool takesUnreadable = false);

} // namespace difctl

#endif
