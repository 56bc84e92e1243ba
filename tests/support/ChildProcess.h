#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace olvane {
namespace test {

// A program run by a test, with its standard output and error in files.
// The child dies with the test (SIGKILL when the test's thread ends) and the
// destructor terminates and reaps it if it still runs, so no test leaves a
// process behind.
class ChildProcess {
public:
    // `argv[0]` is the program's path. `env` entries "NAME=value" set or
    // replace a variable of the test's environment; "NAME" removes it.
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                 const std::string& stdoutPath, const std::string& stderrPath);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits at most `timeoutMs` for the child to end; returns whether it has.
    bool waitExit(int timeoutMs);
    bool running();
    // SIGTERM, then SIGKILL if it has not ended after a second; reaps it.
    void terminate();
    // The raw wait status; meaningful once the child has ended.
    int status() const { return status_; }
    bool exitedWith(int code) const;

private:
    pid_t pid_ = -1;
    int status_ = 0;
};

// The whole content of a file ("" if it cannot be read).
std::string readFile(const std::string& path);

}  // namespace test
}  // namespace olvane
