#include "pass/request_list.h"

#include <algorithm>

namespace difctl {

namespace {

constexpr size_t kEntriesPerNode = 16;
constexpr size_t kNodeBytes = sizeof(Sgl) + kEntriesPerNode * sizeof(SglEntry);
static_assert(kNodeBytes % alignof(Sgl) == 0);

} // namespace

RequestList::RequestList(const Request &request) {
    uint64_t bytesLeft = request.wholeBlocks(request.blockNum).bytes();
    const size_t entryNum = (bytesLeft + request.format->entryBytes - 1) / request.format->entryBytes;
    const size_t nodeNum = (entryNum + kEntriesPerNode - 1) / kEntriesPerNode;
    nodes_ = std::make_unique<std::byte[]>(nodeNum * kNodeBytes);
    uint8_t *buf = request.buf;
    for (size_t node = 0; node < nodeNum; ++node) {
        std::byte *const place = nodes_.get() + node * kNodeBytes;
        Sgl &sgl = *reinterpret_cast<Sgl *>(place);
        sgl.nextSgl = node + 1 < nodeNum ? reinterpret_cast<Sgl *>(place + kNodeBytes) : nullptr;
        sgl.totalEntryNum = node == 0 ? static_cast<uint16_t>(entryNum) : uint16_t{0};
        sgl.entrySum = static_cast<uint16_t>(std::min(kEntriesPerNode, entryNum - node * kEntriesPerNode));
        for (uint16_t i = 0; i < sgl.entrySum; ++i) {
            SglEntry &entry = sgl.entries[i];
            entry.buf = buf;
            entry.bytes = static_cast<uint32_t>(std::min(request.format->entryBytes, bytesLeft));
            buf += entry.bytes;
            bytesLeft -= entry.bytes;
        }
    }
}

} // namespace difctl
