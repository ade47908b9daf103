#include "start.h"

#include "dif_host.h"
#include "image/image_format.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

namespace nbd {

namespace {

/* The image under the layer, as it is looked at. Errors are nbdkit's own words; the exception only ends the look. */
class LayerReader : public image::Reader {
public:
    LayerReader(const Layer &layer, uint64_t size) : layer_(layer), next_(layer.next()), size_(size) {}

    uint64_t length() override { return size_; }

    uint64_t read(uint64_t offset, uint8_t *bytes, uint64_t size) override {
        const uint64_t there = offset < size_ ? std::min(size, size_ - offset) : 0;
        int error = 0;
        const auto turn = layer_.takeTurn();
        if (there != 0 && next_->pread(next_, bytes, static_cast<uint32_t>(there), offset, 0, &error) != 0) {
            throw std::runtime_error(fmt::format("cannot read at offset {}: {}", offset, errorText(error)));
        }
        return there;
    }

    uint64_t nextData(uint64_t offset) override {
        /* What does not tell its holes is not read from end to end. */
        if (next_->can_extents(next_) != 1) {
            return size_;
        }
        while (offset < size_) {
            int error = 0;
            nbdkit_extent extent = {};
            if (layer_.firstExtent(static_cast<uint32_t>(std::min(size_ - offset, kAsked)), offset, extent, error) !=
                0) {
                return size_;
            }
            if ((extent.type & NBDKIT_EXTENT_ZERO) == 0) {
                return offset;
            }
            offset = extent.offset + extent.length;
        }
        return size_;
    }

private:
    static constexpr uint64_t kAsked = uint64_t{1} << 30;

    const Layer &layer_;
    nbdkit_next *next_;
    uint64_t size_;
};

} // namespace

bool Start::looksRight(const Layer &layer, uint64_t imageSize) const {
    uint32_t minimum = 1;
    uint32_t preferred = 0;
    uint32_t maximum = 0;
    const uint32_t blockSize = disk_.geometry().blockSize;
    auto turn = layer.takeTurn();
    if (layer.next()->block_size(layer.next(), &minimum, &preferred, &maximum) != 0) {
        return false;
    }
    turn = {};
    if (minimum > 1 && blockSize % minimum != 0) {
        nbdkit_error("dif: what is below takes requests of whole %u bytes only, blocks have %u; put --filter=blocksize "
                     "behind --filter=dif",
                     minimum, blockSize);
        return false;
    }
    LayerReader reader(layer, imageSize);
    const image::ImageFormat format = image::lookAtFormat(reader);
    const image::FormatEvidence *const best = format.best();
    if (best == nullptr) {
        if (format.holdsData) {
            nbdkit_error(
                "dif: the image holds data but shows no fields, of either block size; difctl protect writes an "
                "image with fields");
        }
        return !format.holdsData;
    }
    const bool isT10 = parameters_.version == DIF_VERSION_T10;
    const auto firstLba = best->firstLba();
    std::string fits;
    if (best->format->geometry.blockSize != blockSize) {
        fits = fmt::format("dif-block={}", best->format->geometry.dataSize);
    } else if ((isT10 ? best->t10 : best->crc32c) == 0 && best->t10 + best->crc32c != 0) {
        fits = fmt::format("dif-crc={}", isT10 ? "crc32c" : "t10");
    } else if (firstLba && !best->allowsFirstLba(parameters_.firstLba)) {
        fits = fmt::format("dif-lba={}", *firstLba);
    }
    if (!fits.empty()) {
        nbdkit_error("dif: the image looks like %s; %s fits", best->text().c_str(), fits.c_str());
    }
    return fits.empty();
}

int Start::mend(const Layer &layer) {
    for (const BlockRun run : marked_) {
        NBD_LOG(DIF_HOST_LOG_NOTICE,
                fmt::format("the last stop was not clean: looking for torn blocks from block {} to {}", run.first,
                            run.first + run.count - 1));
        int error = 0;
        if (disk_.retag(layer, run, error) != 0) {
            nbdkit_error("dif: blocks from %llu on cannot be mended: %s", static_cast<unsigned long long>(run.first),
                         errorText(error).c_str());
            return -1;
        }
    }
    for (const BlockRun run : marked_) {
        intent_.end(run);
    }
    marked_.clear();
    int error = 0;
    if (disk_.settle(layer, error) != 0) {
        nbdkit_error("dif: mended blocks cannot be brought to stable storage: %s", errorText(error).c_str());
        return -1;
    }
    return 0;
}

int Start::connection(const Layer &layer, uint64_t imageSize, bool mayWrite) {
    const std::lock_guard lock(mutex_);
    if (!looked_) {
        try {
            if (!looksRight(layer, imageSize)) {
                return -1;
            }
        } catch (const std::exception &error) {
            nbdkit_error("dif: the image cannot be looked at: %s", error.what());
            return -1;
        }
        const DifTypeInfo &geometry = disk_.geometry();
        if (intent_.isOpen() &&
            intent_.attach(geometry.blockSize, parameters_.firstLba, imageSize / geometry.blockSize, marked_) != 0) {
            return -1;
        }
        if (const uint64_t rest = imageSize % geometry.blockSize; rest != 0) {
            NBD_LOG(DIF_HOST_LOG_NOTICE, fmt::format("the last {} bytes of the image are no whole block", rest));
        }
        looked_ = true;
        imageSize_ = imageSize;
    }
    if (imageSize != imageSize_) {
        nbdkit_error("dif: the image has changed its size from %llu to %llu bytes; start the server anew",
                     static_cast<unsigned long long>(imageSize_), static_cast<unsigned long long>(imageSize));
        return -1;
    }
    return marked_.empty() || !mayWrite ? 0 : mend(layer);
}

} // namespace nbd
