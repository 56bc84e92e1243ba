#pragma once

#include <taglib/tiostream.h>

#include <string>

namespace kestrow {

// A read-only TagLib stream over one regular file that bounds what TagLib
// may read of it: kMaxReads reads and kMaxBytes bytes in all. Past either
// bound every read returns nothing, which TagLib takes for the end of the
// file. So a file costs a few small reads and a few MiB whatever its size or
// content, while TagLib's own scans for a header or a frame through unknown
// content would read all of it.
//
// Tells a file that could not be read (not there, not a regular file, an
// I/O or permission error) from one that was read: error(). Not
// thread-safe; TagLib::FileRef does not own it, so it must outlive the ref.
class BoundedFileStream : public TagLib::IOStream {
public:
    static const unsigned kMaxReads = 256;
    static const unsigned long kMaxBytes = 16ul << 20;

    explicit BoundedFileStream(const std::string& path);
    ~BoundedFileStream() override;
    BoundedFileStream(const BoundedFileStream&) = delete;
    BoundedFileStream& operator=(const BoundedFileStream&) = delete;

    // 0 while the file was opened and read without failure; otherwise the
    // errno of the first failure.
    int error() const { return error_; }
    // Whether a bound cut TagLib's reading short.
    bool cutShort() const { return cutShort_; }
    unsigned reads() const { return reads_; }

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
    std::string path_;
    int fd_;
    long long size_;
    long long position_;
    unsigned reads_;
    unsigned long bytes_;
    int error_;
    bool cutShort_;
};

}  // namespace kestrow
