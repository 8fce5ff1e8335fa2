// Nothing lost: a served tree kept saved while it changes (a save that fails says why
// and is tried again; SIGKILL leaves the last save; SIGHUP saves), one pull at a time
// per folder, and a pull that says which files it could not bring. Each command runs
// as its own process.
#include "TestFiles.h"
#include "ToolProcess.h"

#include "Dovel/files/AssetBase.h"

#include "basalt/WaitUtil.h"

#include <QDir>

namespace {

using namespace ToolTest;
using BasaltTest::waitUntil;
using TestFiles::readFile;
using TestFiles::writeFile;

TEST(Durability, AServedTreeIsSavedWhileItChangesAndASaveThatFailsSaysWhy) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir dir;
    const QString save = dir.filePath("later/tree.json"); // its folder comes later
    ToolRunner tool;
    QProcess server;
    const QString address = tool.startServer(
        server, {"serve", "--listen", "0", "--save", save, "--save-interval", "0.2"});
    ASSERT_FALSE(address.isEmpty());
    ProcessOutput output(server);
    EXPECT_TRUE(output.waitForErr("dovel: cannot save the tree to " + save.toUtf8() +
                                  ": No such file or directory (the changes are kept; trying "
                                  "again)\n"));
    ASSERT_TRUE(QDir().mkpath(dir.filePath("later")));
    ASSERT_EQ(tool.run({"set", address, "car/speed=42"}).exitCode, 0);
    EXPECT_TRUE(waitUntil([&] { return readFile(save).contains("\"speed\": 42"); }, 20000));
    // Killed outright, it leaves its last save whole.
    ::kill(pid_t(server.processId()), SIGKILL);
    ASSERT_TRUE(server.waitForFinished(5000));
    EXPECT_TRUE(readFile(save).contains("\"speed\": 42"));

    // A hang-up saves what changed since on the way out.
    QProcess again;
    const QString second = tool.startServer(
        again, {"serve", "--listen", "0", "--tree", save, "--save", save, "--save-interval", "60"});
    ASSERT_FALSE(second.isEmpty());
    ASSERT_EQ(tool.run({"set", second, "car/speed=7"}).exitCode, 0);
    EXPECT_TRUE(endsCleanlyOn(again, SIGHUP));
    EXPECT_TRUE(readFile(save).contains("\"speed\": 7")) << readFile(save).constData();
}

TEST(Durability, OnePullAtATimeAndAPullSaysWhatItCouldNotBring) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(writeFile(source.filePath("ok.txt"), "fine"));
    ASSERT_TRUE(writeFile(source.filePath("a..b.txt"), "no name for it on the wire"));
    // Nor for this one; and shown, its name must not break the line or reach the terminal.
    ASSERT_TRUE(writeFile(source.filePath("x\ndovel: forged\x1b[2J"), "no name either"));
    ToolRunner tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"files", "serve", source.path(), "--listen", "0"});
    ASSERT_FALSE(address.isEmpty());

    const ToolRun partial = tool.run({"files", "pull", address, target.path()});
    EXPECT_EQ(partial.exitCode, 1) << partial.err.toStdString();
    EXPECT_TRUE(partial.err.contains(
        "dovel: not pulled: /a..b.txt (the file protocol cannot carry its name)\n"))
        << partial.err.toStdString();
    EXPECT_TRUE(partial.err.contains("dovel: not pulled: /x\\x0adovel: forged\\x1b[2J (the file "
                                     "protocol cannot carry its name)\n"))
        << partial.err.toStdString();
    EXPECT_FALSE(partial.err.contains('\x1b'));
    EXPECT_EQ(readFile(target.filePath("ok.txt")), QByteArray("fine"));

    // Another pull holds the folder: this one fails at once, touching nothing.
    {
        Dovel::AssetBase holder(target.path());
        QString error;
        ASSERT_TRUE(holder.lockForWriting(error)) << error.toStdString();
        const ToolRun blocked = tool.run({"files", "pull", address, target.path()});
        EXPECT_EQ(blocked.exitCode, 1);
        EXPECT_TRUE(blocked.err.contains("dovel: pull failed: another pull is writing into " +
                                         QDir(target.path()).canonicalPath().toUtf8() + "\n"))
            << blocked.err.toStdString();
    }
    EXPECT_EQ(tool.run({"files", "pull", address, target.path()}).exitCode, 1); // free again
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

} // namespace
