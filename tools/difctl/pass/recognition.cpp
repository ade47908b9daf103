#include "pass/recognition.h"

#include "io/error.h"
#include "io/progress.h"
#include "io/source.h"

#include <algorithm>
#include <span>

namespace difctl {

namespace {

/* How much of a stream to wait for to see what it is: what a pipe holds at least, in whole blocks of either size. */
constexpr size_t kLookedAhead = 15 * size_t{kFormat4160.geometry.blockSize};

class FileReader : public image::Reader {
public:
    FileReader(const ImageFile &file, Progress &progress, bool takesUnreadable)
        : file_(file), progress_(progress), takesUnreadable_(takesUnreadable) {}

    uint64_t length() override { return file_.length().value_or(ahead_.size()); }

    uint64_t read(uint64_t offset, uint8_t *bytes, uint64_t size) override {
        if (!file_.length()) {
            const auto there = ahead_.subspan(offset).first(std::min<size_t>(size, ahead_.size() - offset));
            std::copy(there.begin(), there.end(), bytes);
            return there.size();
        }
        try {
            const uint64_t done = readAll(file_, offset, {bytes, size});
            progress_.advance(done);
            ++readNum_;
            return done;
        } catch (const Unreadable &error) {
            if (!takesUnreadable_) {
                throw;
            }
            unreadable_ = error;
            return 0;
        }
    }

    /* Throws if nothing could be read. */
    void requireSome() const {
        if (unreadable_ && readNum_ == 0) {
            throw Unreadable(*unreadable_);
        }
    }

    uint64_t nextData(uint64_t offset) override { return file_.length() ? file_.nextData(offset) : offset; }

private:
    const ImageFile &file_;
    std::span<const uint8_t> ahead_ = file_.lookAhead(kLookedAhead);
    Progress &progress_;
    bool takesUnreadable_;
    uint64_t readNum_ = 0;
    std::optional<Unreadable> unreadable_;
};

[[noreturn]] void throwContradiction(const ImageFile &file, const std::string &said, const FormatEvidence &looks,
                                     const std::string &fitting) {
    throw Error(file.name() + ": " + said + " contradicts its fields, which look like " + looks.text() + "; " +
                fitting);
}

void requireBlockSize(const ImageFile &file, const FormatEvidence &looks, const Claims &claims) {
    const uint32_t fitting = looks.format->geometry.blockSize;
    if (claims.blockSize.value_or(fitting) != fitting) {
        throwContradiction(file, "--block " + std::to_string(*claims.blockSize), looks,
                           "--block " + std::to_string(fitting) + " fits");
    }
}

void requireFirstLba(const ImageFile &file, const FormatEvidence &looks, const Claims &claims) {
    const auto fitting = looks.firstLba();
    if (claims.firstLba && fitting && !looks.allowsFirstLba(*claims.firstLba)) {
        throwContradiction(file, "--first-lba " + std::to_string(*claims.firstLba), looks,
                           "--first-lba " + std::to_string(*fitting) + " fits");
    }
}

void requireStandard(const ImageFile &file, const FormatEvidence &looks, const Claims &claims,
                     const CheckOptions &check) {
    if (looks.isStandard() && !check.standard) {
        throw Error(file.name() + ": its fields look like " + looks.text() +
                    (claims.mayBeStandard ? "; --standard fits"
                                          : ", whose LBAs this command does not check; --force goes ahead"));
    }
    if (check.standard) {
        requireGuard(file, looks, DIF_VERSION_T10, "--standard");
    }
}

} // namespace

void requireGuard(const ImageFile &file, const FormatEvidence &looks, uint8_t version, const std::string &said) {
    const bool isT10 = version == DIF_VERSION_T10;
    if ((isT10 ? looks.t10 : looks.crc32c) == 0 && looks.t10 + looks.crc32c != 0) {
        throwContradiction(file, said, looks, std::string("--crc ") + (isT10 ? "crc32c" : "t10") + " fits");
    }
}

Recognition recognise(const ImageFile &file, const Claims &claims, const CheckOptions &check, bool force) {
    Recognition seen = {lookAt(file, image::Extent::kSample, check.takesUnreadable), {}, claims.firstLba.value_or(0)};
    const FormatEvidence *best = seen.looks.best();
    uint32_t blockSize = claims.blockSize.value_or(kFormat520.geometry.blockSize);
    if (best != nullptr) {
        requireBlockSize(file, *best, claims);
        if (!force) {
            requireStandard(file, *best, claims, check);
        }
        if (!force && check.compareLbas) {
            requireFirstLba(file, *best, claims);
        }
        if (!force && check.requiredVersion) {
            requireGuard(file, *best, *check.requiredVersion,
                         std::string("--crc ") + crcNameOfVersion(*check.requiredVersion));
        }
        blockSize = best->format->geometry.blockSize;
        seen.firstLba = claims.firstLba.value_or(best->firstLba().value_or(0));
    }
    seen.format = formatOf(blockSize, claims.entryBytes);
    return seen;
}

std::string Recognition::text(bool lbas) const {
    return (looks.best() == nullptr ? "no fields seen, taken for blocks of " : "blocks of ") +
           std::to_string(format.geometry.blockSize) + " bytes" +
           (lbas ? ", LBAs from " + std::to_string(firstLba) : "");
}

image::ImageFormat lookAt(const ImageFile &file, image::Extent extent, bool takesUnreadable) {
    Progress progress(file.length());
    FileReader reader(file, progress, takesUnreadable);
    image::ImageFormat format = image::lookAtFormat(reader, extent);
    reader.requireSome();
    return format;
}

} // namespace difctl
