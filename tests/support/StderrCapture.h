#pragma once
// Redirects the process's stderr (file descriptor 2) to a file while it
// lives; restore() reads what was written so far. The test's thread only.

#include "tests/support/Testing.h"

namespace olvane::test {

class StderrCapture {
public:
    explicit StderrCapture(const std::string& file) : file_(file), saved_(::dup(2)) {
        std::fflush(stderr);
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrCapture() { restore(); }

    // Puts the real stderr back (once); returns everything written meanwhile.
    std::string restore() {
        std::fflush(stderr);
        if (::dup2(saved_, 2) >= 0 && ::close(saved_) == 0)
            saved_ = -1;
        std::ifstream text(file_);
        return {std::istreambuf_iterator<char>(text), {}};
    }

private:
    std::string file_;
    int saved_;
};

}  // namespace olvane::test
