/* Open files, the standard streams among them, and bytes on their way between them and memory. */
#ifndef DIFCTL_TRANSFER_H
#define DIFCTL_TRANSFER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>

namespace difctl {

inline constexpr const char *kStandardInput = "standard input";
inline constexpr const char *kStandardOutput = "standard output";

/* Equal pieces of memory at equal distances, for instance the data of consecutive blocks without their fields. */
struct Pieces {
    uint8_t *base;
    size_t size;
    size_t stride;
    size_t count;

    size_t bytes() const { return size * count; }

    /* What follows the first `done` bytes, up to the end of its piece. */
    std::span<uint8_t> after(size_t done) const {
        return {base + done / size * stride + done % size, size - done % size};
    }
};

/* Whether there are only zeros; cheap where the first byte is none. Of `pieces`, from the `from`-th byte to before the
 * `to`-th. */
bool isZero(const uint8_t *bytes, size_t size);
bool isZero(const Pieces &pieces, size_t from, size_t to);

/* `pieces` moved together: to where the first one lies. */
Pieces gathered(const Pieces &pieces);

class FileDescriptor {
public:
    explicit FileDescriptor(int number = -1) : number_(number) {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;

    int get() const { return number_; }
    /* Closes the one before. */
    void set(int number);

private:
    int number_;
};

/* One read into what follows the first `done` bytes of `pieces`, from `offset` on or, without one, from where the file
 * stands: readv's answer, but never EINTR. */
ssize_t readSome(int file, std::optional<uint64_t> offset, const Pieces &pieces, size_t done);

/* Writes the bytes from the `from`-th to before the `to`-th of `pieces`, or all of them; on a failure, `offset` tells how
 * far it got and errno why. */
bool writePart(int file, const Pieces &pieces, size_t from, size_t to, uint64_t &offset);
bool writeAll(int file, const Pieces &pieces, uint64_t &offset);

/* Writes `size` bytes at `offset`; false and errno on a failure. */
bool writeAt(int file, uint64_t offset, const uint8_t *bytes, size_t size);

/* Brings a file to stable storage: fsync's answer, but never EINTR. */
int syncFile(int file);

/* Writes `text` to standard output as a command's result. Throws Error. */
void printResult(const std::string &text);

} // namespace difctl

#endif
