#pragma once
// Redirects the process's stderr (file descriptor 2) to a file while it
// lives; restore() reads what was written so far. The test's thread only.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace olvane::test {

class StderrCapture {
public:
    explicit StderrCapture(const std::string& file) : file_(file), saved_(::dup(2)) {
        std::fflush(stderr);
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (saved_ >= 0 && fd >= 0)
            ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrCapture() { restore(); }

    // Puts the real stderr back; returns everything written meanwhile.
    std::string restore() {
        std::fflush(stderr);
        if (saved_ >= 0) {
            ::dup2(saved_, 2);
            ::close(saved_);
            saved_ = -1;
        }
        std::ifstream text(file_);
        return {std::istreambuf_iterator<char>(text), std::istreambuf_iterator<char>()};
    }

private:
    std::string file_;
    int saved_;
};

}  // namespace olvane::test
