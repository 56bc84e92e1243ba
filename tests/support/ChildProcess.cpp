#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/Wait.h"

extern char** environ;

namespace olvane {
namespace test {

namespace {

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& overrides) {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e)
        env.push_back(*e);
    for (const std::string& o : overrides) {
        const std::string name = o.substr(0, o.find('='));
        for (auto it = env.begin(); it != env.end();) {
            if (it->compare(0, name.size() + 1, name + "=") == 0)
                it = env.erase(it);
            else
                ++it;
        }
        if (o.find('=') != std::string::npos)
            env.push_back(o);
    }
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (std::string& s : strings)
        out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& env, const std::string& stdoutPath,
                           const std::string& stderrPath) {
    // Everything the child needs is prepared before fork(): after it only
    // async-signal-safe calls are made.
    std::vector<std::string> args = argv;
    std::vector<std::string> vars = mergedEnvironment(env);
    std::vector<char*> argp = pointers(args);
    std::vector<char*> envp = pointers(vars);
    const int out = ::open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0 || err < 0)
        throw std::runtime_error("cannot create output files of " + argv.at(0));
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(127);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execve(argp[0], argp.data(), envp.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
}

ChildProcess::~ChildProcess() {
    terminate();
}

bool ChildProcess::running() {
    if (pid_ <= 0)
        return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = status;
        pid_ = -1;
        return false;
    }
    return true;
}

bool ChildProcess::waitExit(int timeoutMs) {
    return waitFor([this] { return !running(); }, timeoutMs);
}

void ChildProcess::terminate() {
    if (!running())
        return;
    ::kill(pid_, SIGTERM);
    if (!waitExit(1000)) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status_, 0);
        pid_ = -1;
    }
}

bool ChildProcess::exitedWith(int code) const {
    return pid_ < 0 && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace test
}  // namespace olvane
