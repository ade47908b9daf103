/* Images as streams of bytes: where they come from, and a destination that is complete or not there at all. */
#ifndef DIFCTL_IMAGE_IO_H
#define DIFCTL_IMAGE_IO_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

/* Equal pieces of memory at equal distances, for instance the data of consecutive blocks without their fields. */
struct Pieces {
    uint8_t *base;
    size_t size;
    size_t stride;
    size_t count;

    size_t bytes() const { return size * count; }
};

class FileDescriptor {
public:
    explicit FileDescriptor(int number = -1) : number_(number) {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;

    int get() const { return number_; }
    void set(int number) { number_ = number; }

private:
    int number_;
};

/* An image to read from its start to its end. Everything throws Error. */
class Source {
public:
    /* Opens `path`, or takes standard input for "-". The image's length must be a multiple, not 0, of `unitBytes`; that
     * is tested at once where the length is known, else at the end. */
    Source(const std::string &path, size_t unitBytes);

    /* Passes over the first `units` units; before the first read, and where the length is known. */
    void skip(uint64_t units);

    /* Fills `pieces` and returns the number of bytes read: less than asked for only at the end, and always whole units. */
    size_t read(const Pieces &pieces);

    /* Makes a read that waits for data, now or later, throw. For any thread. */
    void cancel() const;

    const std::string &name() const { return name_; }

    /* The length in bytes; none for pipes and the like. */
    std::optional<uint64_t> length() const { return length_; }

    /* The length in units; throws Error where it is not known. */
    uint64_t unitNum() const;

private:
    void requireUsableLength(uint64_t length) const;
    void waitForData() const;

    std::string name_;
    size_t unitBytes_;
    FileDescriptor file_;
    FileDescriptor cancelEvent_;
    std::optional<uint64_t> length_;
    uint64_t offset_ = 0;
    bool ended_ = false;
};

/*
 * An image to write. A file gets its name only at commit(), when all of it is on stable storage; until then it is a
 * temporary file in the same directory, and a destination that is not committed leaves nothing. Standard output has no
 * way back. Everything throws Error.
 */
class Destination {
public:
    /* `path`, or standard output for "-". An existing file is replaced if `force`, else refused, now and at commit(). */
    Destination(const std::string &path, bool force);
    ~Destination();
    Destination(const Destination &) = delete;
    Destination &operator=(const Destination &) = delete;

    void write(const Pieces &pieces);
    void commit();

    const std::string &name() const { return name_; }

    /* What to add to the message of a failure: that bytes have gone to standard output already, or nothing. */
    std::string leftoverNote() const;

private:
    bool toStandardOutput() const { return temporary_.empty(); }
    void createTemporary();

    std::string name_;
    std::string target_;    /* the name to give, symbolic links resolved */
    std::string temporary_; /* empty: standard output */
    bool force_;
    bool committed_ = false;
    FileDescriptor file_;
    uint64_t offset_ = 0;
};

/* An image file to change where it is. Everything throws Error. */
class InPlaceFile {
public:
    explicit InPlaceFile(const std::string &path);

    void write(uint64_t offset, const Pieces &pieces);
    void sync();

private:
    std::string name_;
    FileDescriptor file_;
};

/* Writes `text` to standard output as a command's result. */
void printResult(const std::string &text);

} // namespace difctl

#endif
