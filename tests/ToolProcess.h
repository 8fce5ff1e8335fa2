// Runs the dovel tool as a separate process for the tests that need one: short commands
// run to their end, and servers that announce "listening on HOST:PORT" and run until a
// signal. The tool is the one built next to the test executable; each ToolRunner gives
// its processes their own settings and data folders.
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <signal.h>

namespace ToolTest {

inline QString toolPath() {
    return QFileInfo(QFileInfo("/proc/self/exe").canonicalFilePath()).absolutePath() + "/dovel";
}

inline bool toolBuilt() {
    return QFileInfo(toolPath()).isExecutable();
}

// Skips the running test when the tool has not been built next to the test executable.
#define DOVEL_REQUIRE_TOOL()                                                                       \
    do {                                                                                           \
        if (!ToolTest::toolBuilt())                                                                \
            GTEST_SKIP() << "the dovel tool is not built";                                         \
    } while (false)

struct ToolRun {
    int exitCode = -1; // -1: crashed, killed or timed out
    QByteArray out;
    QByteArray err;
};

class ToolRunner {
public:
    ToolRunner() {
        environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", home.path());
        environment.insert("XDG_DATA_HOME", home.path());
        // What the tests compare is the tool's own output in English: no log lines asked
        // for by the caller's environment, no key file but the default, no translated
        // system error texts.
        for (const char* name :
             {"DOVEL_LOG", "DOVEL_KEY_FILE", "DOVEL_BENCH_WRAP_PEER", "LANGUAGE"})
            environment.remove(name);
        environment.insert("LC_ALL", "C.UTF-8");
    }

    // Runs `dovel ARGS...` to its end, or kills it after `ms` milliseconds.
    ToolRun run(const QStringList& args, int ms = 30000) {
        QProcess process;
        start(process, args);
        ToolRun result;
        if (!process.waitForFinished(ms)) {
            process.kill();
            process.waitForFinished();
        } else if (process.exitStatus() == QProcess::NormalExit) {
            result.exitCode = process.exitCode();
        }
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    void start(QProcess& process, const QStringList& args) {
        process.setProcessEnvironment(environment);
        process.start(toolPath(), args);
    }

    // Starts a server and returns "127.0.0.1:PORT" from its first line, or an empty
    // string when it did not say it listens within `ms` milliseconds.
    QString startServer(QProcess& process, const QStringList& args, int ms = 20000) {
        start(process, args);
        if (!process.waitForStarted(ms))
            return QString();
        QElapsedTimer timer;
        timer.start();
        while (!process.canReadLine()) {
            if (timer.elapsed() > ms || process.state() == QProcess::NotRunning)
                return QString();
            process.waitForReadyRead(50);
        }
        const QRegularExpressionMatch listening =
            QRegularExpression("^listening on 127\\.0\\.0\\.1:(\\d+)\n$")
                .match(QString::fromUtf8(process.readLine()));
        if (!listening.hasMatch() || listening.captured(1) == QLatin1String("0"))
            return QString();
        return "127.0.0.1:" + listening.captured(1);
    }

    QProcessEnvironment environment;

private:
    QTemporaryDir home;
};

// What a running process has written so far, both streams apart, for tests that wait
// for a line of a long-running command (a server, `dovel watch`).
class ProcessOutput {
public:
    explicit ProcessOutput(QProcess& process) : process(process) {}

    // Waits until `channel` has shown `text` (anywhere in what it wrote), or `ms` have
    // passed, or the process ended without it.
    bool waitFor(QProcess::ProcessChannel channel, const QByteArray& text, int ms = 15000) {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            drain();
            if ((channel == QProcess::StandardOutput ? out : err).contains(text))
                return true;
            if (timer.elapsed() > ms || process.state() == QProcess::NotRunning)
                return false;
            process.setReadChannel(channel);
            process.waitForReadyRead(20);
        }
    }
    bool waitForOut(const QByteArray& text, int ms = 15000) {
        return waitFor(QProcess::StandardOutput, text, ms);
    }
    bool waitForErr(const QByteArray& text, int ms = 15000) {
        return waitFor(QProcess::StandardError, text, ms);
    }

    const QByteArray& standardOutput() {
        drain();
        return out;
    }
    const QByteArray& standardError() {
        drain();
        return err;
    }

private:
    void drain() {
        out += process.readAllStandardOutput();
        err += process.readAllStandardError();
    }

    QProcess& process;
    QByteArray out;
    QByteArray err;
};

// Sends `signal` and waits for the end; succeeds when the process exited normally with
// 0, and otherwise says how it ended and what it wrote to stderr last.
inline ::testing::AssertionResult endsCleanlyOn(QProcess& process, int signal, int ms = 10000) {
    ::kill(static_cast<pid_t>(process.processId()), signal);
    if (!process.waitForFinished(ms))
        return ::testing::AssertionFailure()
               << "still running " << ms << " ms after signal " << signal;
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return ::testing::AssertionSuccess();
    const QByteArray err = process.readAllStandardError().right(2000);
    return ::testing::AssertionFailure()
           << (process.exitStatus() == QProcess::NormalExit ? "exit code " : "crashed, code ")
           << process.exitCode() << "; stderr: " << err.constData();
}

} // namespace ToolTest
