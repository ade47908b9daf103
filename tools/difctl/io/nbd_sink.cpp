#include "io/nbd_sink.h"

#include "io/error.h"

namespace difctl {

NbdSink::NbdSink(const std::string &uri) : OverwritingSink(printable(uri)), connection_(uri) {
    if (connection_.isReadOnly()) {
        throw Error(name() + ": cannot be written: the server exports it for reading only");
    }
}

void NbdSink::append(const Pieces &pieces) {
    for (size_t done = 0; done < pieces.bytes();) {
        const std::span<uint8_t> piece = pieces.after(done);
        bytes_.insert(bytes_.end(), piece.begin(), piece.end());
        done += piece.size();
    }
    const size_t size = bytes_.size() - bytes_.size() % connection_.unit();
    const size_t commands = connection_.beginWrite(offset_, bytes_.data(), size);
    offset_ += size;
    connection_.finish(commands);
    underWay_.assign(bytes_.begin() + static_cast<ptrdiff_t>(size), bytes_.end());
    bytes_.swap(underWay_);
}

/* The last unit, if the image ends in it, keeps what lies behind that. */
void NbdSink::finish() {
    connection_.finish();
    if (!bytes_.empty()) {
        connection_.write(offset_, {bytes_.data(), bytes_.size(), bytes_.size(), 1});
    }
    connection_.flush();
}

} // namespace difctl
