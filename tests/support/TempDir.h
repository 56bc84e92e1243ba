#pragma once

#include <gtest/gtest.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace olvane::test {

// A fresh directory under $TMPDIR (or under `base`, such as a tmpfs where
// many files come and go fast), removed with everything in it on destruction.
class TempDir {
public:
    explicit TempDir(std::string base = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "") {
        path_ = (base.empty() ? std::string("/tmp") : base) + "/olvane-test-XXXXXX";
        if (!mkdtemp(&path_[0]))
            throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& relative) const { return path_ + "/" + relative; }
    // Creates directory `relative` with its parents.
    std::string mkdir(const std::string& relative) const {
        std::filesystem::create_directories(file(relative));
        return file(relative);
    }
    // Writes `content` to `relative`, creating parent directories.
    std::string write(const std::string& relative, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(file(relative)).parent_path());
        std::ofstream(file(relative), std::ios::binary) << content;
        return file(relative);
    }
    // Copies a sample of tests/data to `relative`.
    std::string copySample(const std::string& sample, const std::string& relative) const {
        std::filesystem::create_directories(std::filesystem::path(file(relative)).parent_path());
        std::filesystem::copy_file(std::string(OLVANE_TEST_DATA_DIR) + "/" + sample, file(relative),
                                   std::filesystem::copy_options::overwrite_existing);
        return file(relative);
    }

private:
    std::string path_;
};

// Sets a file's modification time (seconds).
inline void setMtime(const std::string& path, long long seconds) {
    const utimbuf times{time_t(seconds), time_t(seconds)};
    if (utime(path.c_str(), &times) != 0 || times.modtime != seconds)
        ADD_FAILURE() << "cannot set the time of " << path << " to " << seconds;
}

}  // namespace olvane::test
