// `dovel files serve` and `dovel files pull` as separate processes: the listening
// line, summaries, exit statuses and the signal that ends the server. Skipped when the
// dovel tool has not been built next to the test.
#include "files/FilesTestUtil.h"

#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>

#include <signal.h>

namespace {

using namespace FilesTest;

QString toolPath() {
    return QFileInfo(QFileInfo("/proc/self/exe").canonicalFilePath()).absolutePath() + "/dovel";
}

struct ToolRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

class DovelTool {
public:
    DovelTool() {
        environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", home.path());
        environment.insert("XDG_DATA_HOME", home.path());
    }

    ToolRun run(const QStringList& args) {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(toolPath(), QStringList{"files"} + args);
        ToolRun result;
        if (!process.waitForFinished(30000)) {
            process.kill();
            process.waitForFinished();
            return result;
        }
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    QProcessEnvironment environment;

private:
    QTemporaryDir home;
};

TEST(FilesCommand, ServeAndPullThroughTheTool) {
    if (!QFileInfo(toolPath()).isExecutable())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    ASSERT_TRUE(writeFile(source.path() + "/a.txt", "alpha"));
    ASSERT_TRUE(writeFile(source.path() + "/x", "a file here"));
    ASSERT_TRUE(writeFile(source.path() + "/sub/b.bin", patternBytes(70000, 1)));
    DovelTool tool;

    QProcess server;
    server.setProcessEnvironment(tool.environment);
    server.start(toolPath(), {"files", "serve", source.path(), "--listen", "127.0.0.1:0"});
    ASSERT_TRUE(server.waitForStarted(5000));
    ASSERT_TRUE(waitUntil(
        [&] {
            server.waitForReadyRead(50);
            return server.canReadLine();
        },
        10000));
    const QString line = QString::fromUtf8(server.readLine());
    const QRegularExpressionMatch listening =
        QRegularExpression("^listening on 127\\.0\\.0\\.1:(\\d+)\n$").match(line);
    ASSERT_TRUE(listening.hasMatch()) << line.toStdString();
    const QString address = "127.0.0.1:" + listening.captured(1);
    EXPECT_NE(listening.captured(1), QString("0"));

    ToolRun first = tool.run({"pull", address, target.path()});
    EXPECT_EQ(first.exitCode, 0) << first.err.toStdString();
    EXPECT_TRUE(first.out.contains("checked 3 files, transferred 3 files (70016 bytes)"))
        << first.out.toStdString();
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));

    ASSERT_TRUE(writeFile(target.path() + "/extra.txt", "only here"));
    ToolRun second = tool.run({"pull", address, target.path(), "--delete"});
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_TRUE(second.out.contains("checked 3 files, transferred 0 files (0 bytes), deleted 1"))
        << second.out.toStdString();
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));

    // A folder in the way of a file cannot be replaced without --delete: exit 1 and
    // the name.
    QTemporaryDir blocked;
    ASSERT_TRUE(writeFile(blocked.path() + "/x/inside", "in the way"));
    ToolRun failing = tool.run({"pull", address, blocked.path()});
    EXPECT_EQ(failing.exitCode, 1);
    EXPECT_TRUE(failing.err.contains("failed: /x\n")) << failing.err.toStdString();

    for (const QStringList& bad :
         {QStringList{"pull", "127.0.0.1", target.path()},
          QStringList{"pull", "127.0.0.1:70000", target.path()},
          QStringList{"pull", address, target.path(), "--bogus"},
          QStringList{"serve", source.path(), "--listen", "nohost"}, QStringList{"frobnicate"}}) {
        ToolRun usage = tool.run(bad);
        EXPECT_EQ(usage.exitCode, 2) << bad.join(' ').toStdString();
        EXPECT_EQ(usage.err.count('\n'), 1) << usage.err.toStdString();
    }

    ::kill(static_cast<pid_t>(server.processId()), SIGTERM);
    ASSERT_TRUE(server.waitForFinished(10000));
    EXPECT_EQ(server.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(server.exitCode(), 0);
}

} // namespace
