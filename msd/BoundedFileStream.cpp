#include "msd/BoundedFileStream.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

namespace kestrow {

BoundedFileStream::BoundedFileStream(const std::string& path)
    : path_(path),
      fd_(-1),
      size_(0),
      position_(0),
      reads_(0),
      bytes_(0),
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
}

BoundedFileStream::~BoundedFileStream() {
    if (fd_ >= 0)
        ::close(fd_);
}

TagLib::FileName BoundedFileStream::name() const {
    return path_.c_str();
}

TagLib::ByteVector BoundedFileStream::readBlock(unsigned long length) {
    if (fd_ < 0 || length == 0 || position_ >= size_)
        return TagLib::ByteVector();
    if (reads_ >= kMaxReads || bytes_ >= kMaxBytes) {
        cutShort_ = true;
        return TagLib::ByteVector();
    }
    length = std::min<unsigned long long>(
        {length, kMaxBytes - bytes_, static_cast<unsigned long long>(size_ - position_)});
    ++reads_;
    TagLib::ByteVector buffer(static_cast<unsigned int>(length), '\0');
    unsigned long done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd_, buffer.data() + done, length - done, position_ + done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            error_ = errno;
            break;
        }
        if (n == 0)
            break;
        done += static_cast<unsigned long>(n);
    }
    position_ += done;
    bytes_ += done;
    buffer.resize(static_cast<unsigned int>(done));
    return buffer;
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
