#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace olvane {
namespace test {

TempDir::TempDir() : TempDir(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "") {}

TempDir::TempDir(const std::string& base) {
    std::string tmpl = (base.empty() ? std::string("/tmp") : base) + "/olvane-test-XXXXXX";
    if (!mkdtemp(&tmpl[0]))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& relative) const {
    return path_ + "/" + relative;
}

std::string TempDir::write(const std::string& relative, const std::string& content) const {
    const std::string p = file(relative);
    fs::create_directories(fs::path(p).parent_path());
    std::ofstream out(p, std::ios::binary);
    out << content;
    return p;
}

std::string TempDir::mkdir(const std::string& relative) const {
    const std::string p = file(relative);
    fs::create_directories(p);
    return p;
}

std::string TempDir::copySample(const std::string& sample, const std::string& relative) const {
    const std::string p = file(relative);
    fs::create_directories(fs::path(p).parent_path());
    fs::copy_file(std::string(OLVANE_TEST_DATA_DIR) + "/" + sample, p,
                  fs::copy_options::overwrite_existing);
    return p;
}

void setMtime(const std::string& path, long long seconds) {
    struct utimbuf times;
    times.actime = time_t(seconds);
    times.modtime = time_t(seconds);
    if (utime(path.c_str(), &times) != 0 || times.modtime != seconds)
        ADD_FAILURE() << "cannot set the time of " << path << " to " << seconds;
}

}  // namespace test
}  // namespace olvane
