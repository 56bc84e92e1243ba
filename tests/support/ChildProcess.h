#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <QProcess>
#include <string>
#include <vector>

namespace olvane::test {

// A program run by a test; read its output with readAllStandardOutput() and
// readAllStandardError(). It gets SIGKILL when the test's thread ends, and the
// destructor ends and reaps it if it still runs: no test leaves a process behind.
class ChildProcess : public QProcess {
public:
    // `argv[0]` is the program: a path, or a name found in PATH. `env` entries
    // "NAME=value" set or replace a variable of the test's environment; "NAME"
    // removes it.
    explicit ChildProcess(const std::vector<std::string>& argv,
                          const std::vector<std::string>& env = {}) {
        QProcessEnvironment vars = QProcessEnvironment::systemEnvironment();
        for (const std::string& e : env) {
            const QString entry = QString::fromStdString(e), name = entry.section('=', 0, 0);
            entry.contains('=') ? vars.insert(name, entry.section('=', 1)) : vars.remove(name);
        }
        setProcessEnvironment(vars);
        setChildProcessModifier([parent = ::getpid()] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
        });
        QStringList args;
        for (const std::string& arg : argv)
            args << QString::fromStdString(arg);
        start(args.takeFirst(), args);
        waitForStarted();
    }
    ~ChildProcess() override {
        terminate();
        if (!waitForFinished(2000))
            kill();
        waitForFinished();
    }
};

}  // namespace olvane::test
