#include "intent.h"

#include "image/image_lock.h"
#include "nbdkit_api.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbd {

namespace {

constexpr IntentHeader kNew{{'D', 'I', 'F', 'I', 'N', 'T', 'N', 'T'}, 1, 0, 0, 0, 0, 0};
constexpr off_t kMarks = 4096;
constexpr uint64_t kRegionBytes = uint64_t{16} << 20;
constexpr uint64_t kMaxRegions = 65536;
constexpr std::chrono::seconds kIdle{5};

bool writeAt(int file, const void *bytes, size_t size, off_t offset) {
    return pwrite(file, bytes, size, offset) == static_cast<ssize_t>(size);
}

int syncDirectoryOf(const std::string &path) {
    const int directory = ::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int failed = directory < 0 ? -1 : fsync(directory);
    if (directory >= 0) {
        close(directory);
    }
    return failed;
}

} // namespace

Intent::~Intent() {
    if (file_ >= 0) {
        close(file_);
    }
}

int Intent::open(const std::string &path) {
    path_ = path;
    file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (file_ < 0) {
        nbdkit_error("dif-intent=%s: cannot open: %m", path.c_str());
        return -1;
    }
    if (image::lockImage(file_, true) != 0) {
        nbdkit_error("dif-intent=%s: is in use by another process, or cannot be locked: %m", path.c_str());
        return -1;
    }
    struct stat status = {};
    if (fstat(file_, &status) != 0 || !S_ISREG(status.st_mode)) {
        nbdkit_error("dif-intent=%s: is not a regular file", path.c_str());
        return -1;
    }
    if (status.st_size != 0 &&
        (pread(file_, &header_, sizeof header_, 0) != sizeof header_ ||
         std::memcmp(header_.magic, kNew.magic, sizeof kNew.magic) != 0 || header_.version != kNew.version)) {
        nbdkit_error("dif-intent=%s: is no write-intent file of this version, and is left as it is", path.c_str());
        return -1;
    }
    return 0;
}

int Intent::attach(uint32_t blockSize, uint64_t firstLba, uint64_t blocks, std::vector<BlockRun> &marked) {
    const std::lock_guard lock(mutex_);
    IntentHeader fits = kNew;
    fits.blockSize = blockSize;
    fits.firstLba = firstLba;
    fits.blocks = blocks;
    fits.regionBlocks = kRegionBytes / (blockSize == 520 ? 512 : 4096);
    while (fits.regionBlocks * kMaxRegions < blocks) {
        fits.regionBlocks *= 2;
    }
    fits.scrubbedTo = header_.scrubbedTo;
    const bool isNew = header_.version == 0;
    if (!isNew && std::memcmp(&header_, &fits, sizeof fits) != 0) {
        nbdkit_error(
            "dif-intent=%s: is that of a disk of %llu blocks of %u bytes from LBA %llu, not of %llu of %u from %llu; "
            "remove it if that disk was shut down cleanly or is gone",
            path_.c_str(), static_cast<unsigned long long>(header_.blocks), header_.blockSize,
            static_cast<unsigned long long>(header_.firstLba), static_cast<unsigned long long>(blocks), blockSize,
            static_cast<unsigned long long>(firstLba));
        return -1;
    }
    std::vector<char> marks((blocks + fits.regionBlocks - 1) / fits.regionBlocks);
    const auto size = static_cast<ssize_t>(marks.size());
    if (isNew && (!writeAt(file_, &fits, sizeof fits, 0) || ftruncate(file_, kMarks + size) != 0 || fsync(file_) != 0 ||
                  syncDirectoryOf(path_) != 0)) {
        nbdkit_error("dif-intent=%s: cannot be written: %m", path_.c_str());
        return -1;
    }
    if (pread(file_, marks.data(), marks.size(), kMarks) != size) {
        nbdkit_error("dif-intent=%s: is shorter than its disk needs: remove it after a look at the disk",
                     path_.c_str());
        return -1;
    }
    header_ = fits;
    regions_.resize(marks.size());
    for (uint64_t region = 0; region < marks.size(); ++region) {
        if (marks[region] != 0) {
            const uint64_t first = region * header_.regionBlocks;
            regions_[region].marked = true;
            regions_[region].writes = 1; /* that of before, until end() */
            marked.push_back({first, std::min(header_.regionBlocks, blocks - first)});
        }
    }
    return 0;
}

int Intent::mark(uint64_t region, bool marked) {
    const char byte = marked ? 1 : 0;
    errno = EIO;
    if (!writeAt(file_, &byte, 1, kMarks + static_cast<off_t>(region))) {
        return errno;
    }
    regions_[region].marked = marked;
    return 0;
}

int Intent::begin(BlockRun run) {
    const std::lock_guard lock(mutex_);
    const uint64_t first = run.first / header_.regionBlocks;
    const uint64_t last = (run.first + run.count - 1) / header_.regionBlocks;
    bool isNew = false;
    int error = 0;
    for (uint64_t region = first; region <= last && error == 0; ++region) {
        if (!regions_[region].marked) {
            error = mark(region, true);
            isNew = true;
        }
    }
    if (isNew && error == 0 && fdatasync(file_) != 0) {
        error = errno;
    }
    if (error != 0) {
        /* None of them may pass for durable. */
        for (uint64_t region = first; region <= last; ++region) {
            regions_[region].marked = false;
        }
        return error;
    }
    for (uint64_t region = first; region <= last; ++region) {
        ++regions_[region].writes;
    }
    return 0;
}

void Intent::end(BlockRun run) {
    const std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    ++order_;
    for (uint64_t region = run.first / header_.regionBlocks;
         region <= (run.first + run.count - 1) / header_.regionBlocks; ++region) {
        --regions_[region].writes;
        regions_[region].lastWrite = order_;
        regions_[region].lastTime = now;
    }
}

uint64_t Intent::flushBegins() {
    const std::lock_guard lock(mutex_);
    return order_;
}

void Intent::flushEnded(uint64_t began) {
    const std::lock_guard lock(mutex_);
    flushed_ = std::max(flushed_, began);
}

void Intent::clear(bool atOnce) {
    const std::lock_guard lock(mutex_);
    const auto idleSince = std::chrono::steady_clock::now() - kIdle;
    for (uint64_t region = 0; region < regions_.size(); ++region) {
        const Region &now = regions_[region];
        if (now.marked && now.writes == 0 && now.lastWrite <= flushed_ && (atOnce || now.lastTime < idleSince)) {
            mark(region, false);
        }
    }
    if (atOnce && file_ >= 0) {
        fdatasync(file_);
    }
}

void Intent::setScrubbedTo(uint64_t block) {
    const std::lock_guard lock(mutex_);
    header_.scrubbedTo = block;
    writeAt(file_, &header_.scrubbedTo, sizeof header_.scrubbedTo, offsetof(IntentHeader, scrubbedTo));
}

} // namespace nbd
