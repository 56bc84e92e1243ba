#pragma once

#include <taglib/tiostream.h>

#include <string>
#include <vector>

struct iovec;

namespace kestrow {

// A read-only TagLib stream over one regular file that bounds what TagLib
// may read of it: kMaxReads reads and kMaxBytes bytes in all, both counted
// as read from the file. Past either bound every read that needs the file
// returns nothing (or what it already has), which TagLib takes for the end of
// the file. So a file costs a few reads and a few MiB whatever its size or
// content, while TagLib's own scans for a header or a frame through unknown
// content would read all of it.
//
// TagLib reads a file in many small pieces, most of them near its head or
// its tail. The stream reads the file in fewer, larger pieces of its own and
// serves TagLib's reads from those while it holds them. A read that the
// pieces do not hold fetches, up to the next page boundary and at least kPeek
// bytes past its end:
// - within the first kWindow bytes: the file from its start, kWindow bytes
//   at least;
// - reaching into the last kTailWindow bytes: the file to its end, from the
//   page boundary below those bytes at the latest;
// - elsewhere: kWindow bytes at least from where it starts.
// What it fetches beyond TagLib's reads totals at most kMaxAhead per stream;
// past that, each read fetches what it asks for alone. It holds at most
// three pieces (the head, the tail and the latest other one), each of at most
// kMaxPiece bytes: a read larger than that goes straight to TagLib, with the
// bytes after it up to the page boundary in a piece. The kernel's own
// read-ahead is turned off for the file: the stream sizes its reads itself.
//
// Tells a file that could not be read (not there, not a regular file, an
// I/O or permission error) from one that was read: error(). A failure in the
// bytes fetched beyond TagLib's read alone is not one. Not thread-safe;
// TagLib::FileRef does not own it, so it must outlive the ref.
class BoundedFileStream : public TagLib::IOStream {
public:
    static constexpr unsigned kMaxReads = 256;
    static constexpr unsigned long kMaxBytes = 16ul << 20;
    static constexpr unsigned kWindow = 16 * 1024;
    static constexpr unsigned kTailWindow = 4 * 1024;
    static constexpr unsigned kPeek = 64;
    static constexpr unsigned long kMaxAhead = 64 * 1024;
    static constexpr unsigned long kMaxPiece = 64 * 1024;

    explicit BoundedFileStream(const std::string& path);
    ~BoundedFileStream() override;
    BoundedFileStream(const BoundedFileStream&) = delete;
    BoundedFileStream& operator=(const BoundedFileStream&) = delete;

    // 0 while the file was opened and read without failure; otherwise the
    // errno of the first failure, after which every read returns nothing.
    int error() const { return error_; }
    // Whether a bound cut TagLib's reading short.
    bool cutShort() const { return cutShort_; }
    // The read calls made on the file, and the bytes they gave.
    unsigned reads() const { return reads_; }
    unsigned long bytesRead() const { return bytes_; }

    TagLib::FileName name() const override;
    TagLib::ByteVector readBlock(unsigned long length) override;
    void writeBlock(const TagLib::ByteVector&) override {}
    void insert(const TagLib::ByteVector&, unsigned long, unsigned long) override {}
    void removeBlock(unsigned long, unsigned long) override {}
    bool readOnly() const override { return true; }
    bool isOpen() const override { return fd_ >= 0; }
    void seek(long offset, Position p = Beginning) override;
    void clear() override {}
    long tell() const override;
    long length() override;
    void truncate(long) override {}

private:
    // Bytes of the file from `start` on.
    struct Piece {
        long long start = 0;
        std::vector<char> bytes;
        bool holds(long long at) const {
            return at >= start && at < start + static_cast<long long>(bytes.size());
        }
    };

    // Fetches from the file at least the first byte of the `length` bytes
    // at `at`, into a piece or (for a large read) straight into `out`.
    // Returns the bytes put into `out`; 0 with nothing fetched at the end of
    // the file or on a failure.
    unsigned long fetch(long long at, unsigned long length, char* out);
    // Reads `total` bytes at `offset` into the buffers of `iov` in turn;
    // returns the bytes read, fewer at the end of the file or on a failure,
    // whose errno goes into `err`.
    unsigned long readAt(struct iovec* iov, int count, long long offset, int& err);

    std::string path_;
    int fd_;
    long long size_;
    long long position_;
    unsigned reads_;
    unsigned long bytes_;
    unsigned long ahead_;  // bytes fetched beyond TagLib's reads
    int error_;
    bool cutShort_;
    Piece pieces_[3];  // the head, the tail, the latest other piece
};

}  // namespace kestrow
