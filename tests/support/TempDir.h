#pragma once

#include <string>

namespace olvane {
namespace test {

// A fresh directory under $TMPDIR, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    // Under `base` instead, such as a tmpfs where many files come and go fast.
    explicit TempDir(const std::string& base);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + relative
    std::string file(const std::string& relative) const;
    // Writes `content` to `relative`, creating parent directories.
    std::string write(const std::string& relative, const std::string& content) const;
    // Creates directory `relative` with its parents.
    std::string mkdir(const std::string& relative) const;
    // Copies a sample of tests/data to `relative`.
    std::string copySample(const std::string& sample, const std::string& relative) const;

private:
    std::string path_;
};

// Sets a file's modification time (seconds).
void setMtime(const std::string& path, long long seconds);

}  // namespace test
}  // namespace olvane
