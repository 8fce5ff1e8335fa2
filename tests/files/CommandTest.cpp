// `dovel files serve` and `dovel files pull` as separate processes: the listening
// line, summaries, exit statuses and the signal that ends the server. Skipped when the
// dovel tool has not been built next to the test.
#include "files/FilesTestUtil.h"

#include "ToolProcess.h"

namespace {

using namespace FilesTest;
using namespace ToolTest;

TEST(FilesCommand, ServeAndPullThroughTheTool) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    ASSERT_TRUE(writeFile(source.path() + "/a.txt", "alpha"));
    ASSERT_TRUE(writeFile(source.path() + "/x", "a file here"));
    ASSERT_TRUE(writeFile(source.path() + "/sub/b.bin", patternBytes(70000, 1)));
    ToolRunner tool;

    QProcess server;
    const QString address =
        tool.startServer(server, {"files", "serve", source.path(), "--listen", "127.0.0.1:0"});
    ASSERT_FALSE(address.isEmpty());

    ToolRun first = tool.run({"files", "pull", address, target.path()});
    EXPECT_EQ(first.exitCode, 0) << first.out.toStdString() << first.err.toStdString();
    EXPECT_TRUE(first.out.contains("checked 3 files, transferred 3 files (70016 bytes)"))
        << first.out.toStdString();
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));

    ASSERT_TRUE(writeFile(target.path() + "/extra.txt", "only here"));
    ToolRun second = tool.run({"files", "pull", address, target.path(), "--delete"});
    EXPECT_EQ(second.exitCode, 0) << second.out.toStdString() << second.err.toStdString();
    EXPECT_TRUE(second.out.contains("checked 3 files, transferred 0 files (0 bytes), deleted 1"))
        << second.out.toStdString();
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));

    // A folder in the way of a file cannot be replaced without --delete: exit 1 and
    // the name.
    QTemporaryDir blocked;
    ASSERT_TRUE(writeFile(blocked.path() + "/x/inside", "in the way"));
    ToolRun failing = tool.run({"files", "pull", address, blocked.path()});
    EXPECT_EQ(failing.exitCode, 1) << failing.out.toStdString() << failing.err.toStdString();
    EXPECT_TRUE(failing.err.contains("dovel: could not pull /x\n")) << failing.err.toStdString();

    // Usage errors: exit 2 and one line.
    for (const QStringList& bad :
         {QStringList{"pull", "127.0.0.1:70000", target.path()},
          QStringList{"pull", address, target.path(), "--bogus"}, QStringList{"frobnicate"}}) {
        ToolRun usage = tool.run(QStringList{"files"} + bad);
        EXPECT_EQ(usage.exitCode, 2) << bad.join(' ').toStdString();
        EXPECT_EQ(usage.err.count('\n'), 1) << usage.err.toStdString();
    }

    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

} // namespace
