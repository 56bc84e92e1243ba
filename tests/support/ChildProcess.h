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
    // `argv[0]` is the program's path. `env` entries "NAME=value" set or
    // replace a variable of the test's environment; "NAME" removes it.
    explicit ChildProcess(const std::vector<std::string>& argv,
                          const std::vector<std::string>& env = {}) {
        QProcessEnvironment vars = QProcessEnvironment::systemEnvironment();
        for (const std::string& e : env) {
            const QString entry = QString::fromStdString(e);
            vars.remove(entry.section('=', 0, 0));
            if (entry.contains('='))
                vars.insert(entry.section('=', 0, 0), entry.section('=', 1));
        }
        setProcessEnvironment(vars);
        const pid_t parent = ::getpid();
        setChildProcessModifier([parent] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
        });
        QStringList args;
        for (size_t i = 1; i < argv.size(); ++i)
            args << QString::fromStdString(argv[i]);
        start(QString::fromStdString(argv.at(0)), args);
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
