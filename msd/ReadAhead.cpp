#include "msd/ReadAhead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrow {

void ReadAhead::hint(const std::string& path) {
    // Non-blocking: a FIFO named like a song must not hold the open.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        ::posix_fadvise(fd, 0, kHeadBytes, POSIX_FADV_WILLNEED);
        if (st.st_size > kHeadBytes)
            ::posix_fadvise(fd, st.st_size - kTailBytes, kTailBytes, POSIX_FADV_WILLNEED);
    }
    ::close(fd);
}

}  // namespace kestrow
