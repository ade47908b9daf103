#include "image/image_format.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <endian.h>

namespace image {

namespace {

/* The smallest run that is whole blocks of either size. */
constexpr uint64_t kChunkBytes = kFormat4160.geometry.blockSize;
static_assert(kChunkBytes % kFormat520.geometry.blockSize == 0);

constexpr uint64_t kSampleChunks = 128;
constexpr uint64_t kSearchChunks = 256; /* in one read of the search for data */

/* Of blocks that are not zero, one in so many must look like a field if none is proven; chance makes one in thousands. */
constexpr uint64_t kLeastShare = 16;

/* More first LBAs than these are not told apart: an image of something else would have one a block. */
constexpr size_t kMostFirstLbas = 4096;

bool isFilledWith(uint8_t byte, const uint8_t *bytes, size_t size) {
    return bytes[0] == byte && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}

class Observer {
public:
    explicit Observer(ImageFormat &format) : format_(format) {}

    /* Looks at the `size` bytes at `offset` in either block size. */
    void look(uint8_t *bytes, uint64_t offset, uint64_t size) {
        if (size == 0) { /* cut off meanwhile */
            return;
        }
        format_.holdsData = format_.holdsData || !isFilledWith(0, bytes, size);
        for (size_t kind = 0; kind < format_.evidence.size(); ++kind) {
            const uint32_t blockSize = format_.evidence[kind].format->geometry.blockSize;
            for (uint64_t at = 0; at + blockSize <= size; at += blockSize) {
                lookAtBlock(kind, bytes + at, (offset + at) / blockSize);
            }
        }
    }

    /* Counts as fields what only agrees with other blocks on the LBA. */
    void finish() {
        for (size_t kind = 0; kind < format_.evidence.size(); ++kind) {
            FormatEvidence &evidence = format_.evidence[kind];
            for (const uint32_t first : onlyLba_[kind]) {
                evidence.fields += evidence.lbas.of(first) > 1 ? 1 : 0;
            }
        }
    }

private:
    /* `lba`: the block's index in the image. */
    void lookAtBlock(size_t kind, const uint8_t *block, uint64_t lba) {
        FormatEvidence &evidence = format_.evidence[kind];
        const DifTypeInfo &geometry = evidence.format->geometry;
        if (isFilledWith(0, block, geometry.blockSize)) {
            ++evidence.unwritten;
            return;
        }
        DifTuple tuple = {};
        std::memcpy(&tuple, block + geometry.difOffset, sizeof(tuple));
        const bool written = !isFilledWith(0, block + geometry.difOffset, sizeof(tuple));
        const bool t10 = written && tuple.crc == guardOf(DIF_VERSION_T10, block, geometry.dataSize);
        const bool crc32c = written && tuple.crc == guardOf(DIF_VERSION_CRC32C, block, geometry.dataSize);
        const bool proven = tuple.version == DIF_VERSION_T10 ? t10 : tuple.version == DIF_VERSION_CRC32C && crc32c;
        const bool ownVersion = tuple.version == DIF_VERSION_T10 || tuple.version == DIF_VERSION_CRC32C ||
                                tuple.version == DIF_VERSION_NO_CRC;
        const bool versionFits = ownVersion && (tuple.version != DIF_VERSION_NO_CRC || tuple.crc == 0);
        const bool flagsFit = (tuple.app & ~(DIF_APP_BST | DIF_APP_LBA_VALID)) == 0;
        const bool exempt = tuple.version == 0xFF && tuple.app == 0xFF && !isFilledWith(0xFF, block, geometry.dataSize);
        const bool field = t10 || crc32c || (versionFits && flagsFit) || exempt;
        ++evidence.blocks;
        evidence.t10 += t10 ? 1 : 0;
        evidence.crc32c += crc32c ? 1 : 0;
        evidence.proven += proven ? 1 : 0;
        evidence.fields += field ? 1 : 0;
        evidence.bst += field && !exempt && (tuple.app & DIF_APP_BST) != 0 ? 1 : 0;
        const uint32_t first = be32toh(tuple.lba) - static_cast<uint32_t>(lba);
        if (t10 && !ownVersion) {
            evidence.standardTags.add(first);
        }
        if (flagsFit && (tuple.app & DIF_APP_LBA_VALID) != 0) {
            evidence.lbas.add(first);
            if (!field && onlyLba_[kind].size() < kMostFirstLbas) {
                onlyLba_[kind].push_back(first);
            }
        }
    }

    ImageFormat &format_;
    std::array<std::vector<uint32_t>, 2> onlyLba_;
};

} // namespace

void FirstLbas::add(uint32_t first) {
    ++all_;
    if (blocks_.size() < kMostFirstLbas || blocks_.contains(first)) {
        ++blocks_[first];
    }
}

uint64_t FirstLbas::of(uint32_t first) const {
    const auto found = blocks_.find(first);
    return found == blocks_.end() ? 0 : found->second;
}

std::optional<uint32_t> FirstLbas::majority() const {
    const auto most = std::max_element(blocks_.begin(), blocks_.end(),
                                       [](const auto &a, const auto &b) { return a.second < b.second; });
    return most != blocks_.end() && 2 * most->second > all_ ? std::optional(most->first) : std::nullopt;
}

bool FormatEvidence::isStandard() const {
    const auto first = standardTags.majority();
    return first && 2 * standardTags.of(*first) > fields;
}

std::string FormatEvidence::text() const {
    const std::string guard = t10 == 0 && crc32c == 0 ? "no right guard"
                              : crc32c == 0           ? "guard t10"
                              : t10 == 0              ? "guard crc32c"
                                                      : "guards t10 and crc32c";
    const auto lba = firstLba();
    return "blocks of " + std::to_string(format->geometry.blockSize) + " bytes with " + guard +
           (lba            ? " and LBAs from " + std::to_string(*lba)
            : lbas.empty() ? " and no LBAs"
                           : " and LBAs in no order") +
           (isStandard() ? ", plain T10" : "");
}

const FormatEvidence *ImageFormat::best() const {
    const auto &[small, large] = evidence;
    const FormatEvidence &answer = small.fields * large.blocks >= large.fields * small.blocks ? small : large;
    return answer.proven > 0 || (answer.fields > 0 && answer.fields * kLeastShare >= answer.blocks) ? &answer : nullptr;
}

ImageFormat lookAtFormat(Reader &reader, Extent extent) {
    ImageFormat format;
    Observer observer(format);
    const uint64_t length = reader.length();
    const uint64_t chunkNum = (length + kChunkBytes - 1) / kChunkBytes;
    const uint64_t sampleNum = std::min(chunkNum, kSampleChunks);
    std::vector<uint8_t> bytes(kSearchChunks * kChunkBytes);
    if (extent == Extent::kAll) {
        for (uint64_t offset = 0; offset < length; offset += bytes.size()) {
            observer.look(bytes.data(), offset, reader.read(offset, bytes.data(), bytes.size()));
        }
        observer.finish();
        return format;
    }
    for (uint64_t i = 0; i < sampleNum; ++i) {
        /* The first and the last chunk, and what lies between at equal distances. */
        const uint64_t offset = (i == 0 ? 0 : i * (chunkNum - 1) / (sampleNum - 1)) * kChunkBytes;
        observer.look(bytes.data(), offset, reader.read(offset, bytes.data(), kChunkBytes));
    }
    uint64_t offset = format.holdsData ? length : 0;
    for (uint64_t found = 0; offset < length && found < kSampleChunks;) {
        offset = reader.nextData(offset) / kChunkBytes * kChunkBytes;
        const uint64_t size = offset < length ? reader.read(offset, bytes.data(), bytes.size()) : 0;
        for (uint64_t at = 0; at < size; at += kChunkBytes) {
            const uint64_t chunk = std::min(kChunkBytes, size - at);
            if (!isFilledWith(0, bytes.data() + at, chunk)) {
                observer.look(bytes.data() + at, offset + at, chunk);
                ++found;
            }
        }
        offset += bytes.size();
    }
    observer.finish();
    return format;
}

} // namespace image
