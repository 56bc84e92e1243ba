#pragma once
// Redirects the process's stderr (file descriptor 2) to a file while it
// lives; text() reads what was written so far. The test's thread only.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace olvane::test {

class StderrCapture {
public:
    explicit StderrCapture(const std::string& file) : file_(file) {
        std::fflush(stderr);
        saved_ = ::dup(2);
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (saved_ >= 0 && fd >= 0)
            ::dup2(fd, 2);
        if (fd >= 0)
            ::close(fd);
    }
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Puts the real stderr back; returns everything written meanwhile.
    std::string restore() {
        std::fflush(stderr);
        if (saved_ >= 0) {
            ::dup2(saved_, 2);
            ::close(saved_);
            saved_ = -1;
        }
        std::stringstream text;
        text << std::ifstream(file_).rdbuf();
        return text.str();
    }

private:
    std::string file_;
    int saved_ = -1;
};

}  // namespace olvane::test
