#include "msd/BoundedFileStream.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace kestrow {

namespace {

const long long kPage = 4096;

long long pageUp(long long offset) {
    return (offset + kPage - 1) / kPage * kPage;
}

long long pageDown(long long offset) {
    return offset / kPage * kPage;
}

}  // namespace

BoundedFileStream::BoundedFileStream(const std::string& path)
    : path_(path),
      fd_(-1),
      size_(0),
      position_(0),
      reads_(0),
      bytes_(0),
      ahead_(0),
      error_(0),
      cutShort_(false) {
    // Non-blocking: a FIFO named like a song must not hold the open.
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd_ < 0) {
        error_ = errno;
        return;
    }
    struct stat st;
    if (::fstat(fd_, &st) != 0)
        error_ = errno;
    else if (!S_ISREG(st.st_mode))
        error_ = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    if (error_) {
        ::close(fd_);
        fd_ = -1;
        return;
    }
    size_ = st.st_size;
    // The kernel would widen each small read to 16 to 128 KiB, and go on
    // reading after a large one; on a USB stick those bytes cost as much as
    // the ones TagLib wants.
    ::posix_fadvise(fd_, 0, 0, POSIX_FADV_RANDOM);
}

BoundedFileStream::~BoundedFileStream() {
    if (fd_ >= 0)
        ::close(fd_);
}

TagLib::FileName BoundedFileStream::name() const {
    return path_.c_str();
}

TagLib::ByteVector BoundedFileStream::readBlock(unsigned long length) {
    if (fd_ < 0 || error_ || length == 0 || position_ >= size_)
        return TagLib::ByteVector();
    // Never more than the pieces hold and the bounds still let through.
    unsigned long long held = 0;
    for (const Piece& p : pieces_)
        held += p.bytes.size();
    length = std::min<unsigned long long>(
        {length, kMaxBytes - bytes_ + held, static_cast<unsigned long long>(size_ - position_)});
    TagLib::ByteVector buffer(static_cast<unsigned int>(length), '\0');
    unsigned long done = 0;
    while (done < length) {
        const long long at = position_ + done;
        const Piece* piece = nullptr;
        for (const Piece& p : pieces_)
            if (p.holds(at))
                piece = &p;
        if (piece) {
            const unsigned long n = std::min<unsigned long long>(
                length - done, piece->start + piece->bytes.size() - at);
            std::memcpy(buffer.data() + done, piece->bytes.data() + (at - piece->start), n);
            done += n;
            continue;
        }
        if (reads_ >= kMaxReads || bytes_ >= kMaxBytes) {
            cutShort_ = true;
            break;
        }
        const unsigned long n = fetch(at, length - done, buffer.data() + done);
        done += n;
        bool held = false;
        for (const Piece& p : pieces_)
            held = held || p.holds(at);
        if (n == 0 && !held)
            break;  // the end of the file, or a failure
    }
    position_ += done;
    buffer.resize(static_cast<unsigned int>(done));
    return buffer;
}

unsigned long BoundedFileStream::fetch(long long at, unsigned long length, char* out) {
    length = std::min<unsigned long long>(length, kMaxBytes - bytes_);
    const long long end = at + static_cast<long long>(length);
    long long from = at, to = end;
    if (ahead_ < kMaxAhead) {
        long long wideFrom = at < kWindow ? 0 : at, wideTo;
        if (end > size_ - kTailWindow) {
            wideFrom = std::min(wideFrom, pageDown(std::max(0LL, size_ - kTailWindow)));
            wideTo = size_;
        } else {
            wideTo = std::min(size_, pageUp(std::max(end + kPeek, wideFrom + kWindow)));
        }
        if (wideTo - wideFrom > static_cast<long long>(kMaxPiece)) {
            // Too large for a piece: the read goes to the caller, with a
            // little of what follows it.
            wideFrom = at;
            wideTo = std::min(size_, pageUp(end + kPeek));
        }
        const unsigned long extra = static_cast<unsigned long>(wideTo - wideFrom) - length;
        if (ahead_ + extra <= kMaxAhead &&
            static_cast<unsigned long>(wideTo - wideFrom) <= kMaxBytes - bytes_) {
            from = wideFrom;
            to = wideTo;
            ahead_ += extra;
        }
    }
    const bool direct = to - from > static_cast<long long>(kMaxPiece);
    Piece& piece = !direct && from == 0 ? pieces_[0] : to == size_ ? pieces_[1] : pieces_[2];
    piece.start = direct ? end : from;
    piece.bytes.resize(static_cast<size_t>(direct ? to - end : to - from));
    struct iovec iov[2] = {{out, direct ? length : 0}, {piece.bytes.data(), piece.bytes.size()}};
    int err = 0;
    const unsigned long got = readAt(iov + (direct ? 0 : 1), direct ? 2 : 1, from, err);
    const bool whole = from + static_cast<long long>(got) >= end;
    if (err && !whole && (from != at || to != end)) {
        // The failure may lie in the bytes TagLib did not ask for: it is
        // the file's only if TagLib's own bytes cannot be read.
        piece.bytes.clear();
        iov[0] = {out, length};
        err = 0;
        const unsigned long own = readAt(iov, 1, at, err);
        if (err)
            error_ = err;
        return own;
    }
    if (err && !whole)
        error_ = err;
    if (!direct) {
        piece.bytes.resize(got);
        return 0;
    }
    piece.bytes.resize(got > length ? got - length : 0);
    return std::min(got, length);
}

unsigned long BoundedFileStream::readAt(struct iovec* iov, int count, long long offset, int& err) {
    unsigned long done = 0;
    while (count > 0) {
        if (iov->iov_len == 0) {
            ++iov;
            --count;
            continue;
        }
        ++reads_;
        const ssize_t n = ::preadv(fd_, iov, count, offset + static_cast<long long>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            err = errno;
            break;
        }
        if (n == 0)
            break;
        done += static_cast<unsigned long>(n);
        bytes_ += static_cast<unsigned long>(n);
        for (size_t left = static_cast<size_t>(n); left > 0;) {
            const size_t step = std::min(left, iov->iov_len);
            iov->iov_base = static_cast<char*>(iov->iov_base) + step;
            iov->iov_len -= step;
            left -= step;
            if (iov->iov_len == 0) {
                ++iov;
                --count;
            }
        }
    }
    return done;
}

void BoundedFileStream::seek(long offset, Position p) {
    long long base = p == Beginning ? 0 : p == Current ? position_ : size_;
    position_ = std::max(0LL, base + offset);
}

long BoundedFileStream::tell() const {
    return static_cast<long>(std::min<long long>(position_, LONG_MAX));
}

long BoundedFileStream::length() {
    return static_cast<long>(std::min<long long>(size_, LONG_MAX));
}

}  // namespace kestrow
