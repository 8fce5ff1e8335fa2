// Faults across processes: a pull killed in the middle of a download, and the pull
// that follows it. Skipped when the dovel tool has not been built next to the test.
#include "files/FilesTestUtil.h"

#include "ToolProcess.h"

namespace {

using namespace FilesTest;
using namespace ToolTest;

bool hasPartFile(const QString& root) {
    QDirIterator it(root, {"*.filesync.part"}, QDir::Files | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        if (it.fileInfo().size() > 0)
            return true;
    }
    return false;
}

TEST(FilesFault, PullKilledMidDownloadLeavesNothingAfterTheNextPull) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    ASSERT_TRUE(writeFile(source.path() + "/big.bin", patternBytes(32 << 20, 7)));
    ASSERT_TRUE(writeFile(source.path() + "/small/a.txt", "alpha"));
    DovelTool tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"files", "serve", source.path(), "--listen", "127.0.0.1:0"});
    ASSERT_FALSE(address.isEmpty());

    QProcess pull;
    tool.start(pull, {"files", "pull", address, target.path()});
    ASSERT_TRUE(pull.waitForStarted(5000));
    ASSERT_TRUE(waitUntil([&] { return hasPartFile(target.path()); }, 20000));
    pull.kill();
    ASSERT_TRUE(pull.waitForFinished(5000));
    ASSERT_EQ(pull.exitStatus(), QProcess::CrashExit);
    ASSERT_TRUE(hasPartFile(target.path())); // what the killed pull left

    // A leftover of an even earlier run, for a file that the server no longer has.
    ASSERT_TRUE(writeFile(target.path() + "/small/gone.bin.filesync.part", "stale"));

    const ToolRun again = tool.run({"files", "pull", address, target.path()});
    EXPECT_EQ(again.exitCode, 0) << again.err.toStdString();
    // The snapshot holds hidden and temporary files too: equality means none is left.
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));
    EXPECT_TRUE(endsCleanlyOn(server, SIGINT));
}

} // namespace
