// `dovel serve`, `dump`, `get`, `ls`, `set`, `rm`, `watch` and `demo` run as a user
// runs them: each in its own process, over loopback TCP on ephemeral ports, with tree
// files in temporary folders. Skipped when the dovel tool has not been built next to the test.
#include "TestFiles.h"
#include "ToolProcess.h"
#include "transport/TransportTestUtil.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace ToolTest;
using TestFiles::readFile;
using TestFiles::writeFile;

QJsonObject object(const QByteArray& json) {
    return QJsonDocument::fromJson(json).object();
}

const QByteArray SceneJson = R"({
  "scene": {
    "title": "hello",
    "speed": 1.5,
    "count": 3,
    "on": true,
    "camera": {"position": {"@type": "vec3f", "value": [0, 1.5, 4]}}
  }
})";

TEST(SessionCommands, ServeDumpSetAndWatchAcrossProcesses) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const QString treeFile = folder.filePath("scene.json");
    const QString savedFile = folder.filePath("saved.json");
    ASSERT_TRUE(writeFile(treeFile, SceneJson));
    ToolTest::ToolRunner tool;

    QProcess server;
    const QString address = tool.startServer(
        server, {"serve", "--listen", "127.0.0.1:0", "--tree", treeFile, "--save", savedFile});
    ASSERT_FALSE(address.isEmpty());

    // dump returns the served tree.
    ToolRun dumped = tool.run({"dump", address});
    ASSERT_EQ(dumped.exitCode, 0) << dumped.err.toStdString();
    EXPECT_EQ(object(dumped.out), object(SceneJson)) << dumped.out.toStdString();

    QProcess watch;
    tool.start(watch, {"watch", address});
    ProcessOutput watched(watch);
    ASSERT_TRUE(watched.waitForErr("watching " + address.toUtf8() + " (5 attributes)\n"))
        << watched.standardError().toStdString();

    // set from one process, seen by dump from another and by watch. The int attribute
    // keeps its type: 7 stays an int, 2 becomes the float 2.
    ToolRun set = tool.run({"set", address, "scene/count=7", "scene/speed=2",
                            "scene/camera/position=[1,2,3]", "scene/extra/name=\"new\""});
    ASSERT_EQ(set.exitCode, 0) << set.err.toStdString();
    EXPECT_TRUE(set.out.isEmpty() && set.err.isEmpty()) << set.err.toStdString();
    ToolRun after = tool.run({"dump", address});
    ASSERT_EQ(after.exitCode, 0) << after.err.toStdString();
    QJsonObject expected = object(R"({"scene": {
        "title": "hello", "speed": {"@type": "float", "value": 2}, "count": 7, "on": true,
        "camera": {"position": {"@type": "vec3f", "value": [1, 2, 3]}},
        "extra": {"name": "new"}}})");
    EXPECT_EQ(object(after.out), expected) << after.out.toStdString();

    ASSERT_TRUE(watched.waitForOut("+ scene/extra/name = \"new\"\n"))
        << watched.standardOutput().toStdString();
    // The changes of one batch come in path order; the addition may come before them.
    for (const QByteArray& line :
         {QByteArray("scene/camera/position = {\"@type\":\"vec3f\",\"value\":[1,2,3]}\n"),
          QByteArray("scene/count = 7\n"),
          QByteArray("scene/speed = {\"@type\":\"float\",\"value\":2}\n")})
        EXPECT_TRUE(watched.waitForOut(line)) << watched.standardOutput().toStdString();
    EXPECT_EQ(watched.standardOutput().count('\n'), 4) << watched.standardOutput().toStdString();

    // A value that does not fit the attribute's type: exit 2, the path named, and
    // nothing sent, not even the values before it that did fit.
    ToolRun bad = tool.run({"set", address, "scene/title=\"changed\"", "scene/count=\"many\""});
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_EQ(bad.err.count('\n'), 1) << bad.err.toStdString();
    EXPECT_TRUE(bad.err.startsWith("dovel: scene/count: ")) << bad.err.toStdString();
    ToolRun unchanged = tool.run({"dump", address});
    EXPECT_EQ(object(unchanged.out), expected) << unchanged.out.toStdString();

    // A second change reaches watch as one line.
    ASSERT_EQ(tool.run({"set", address, "scene/on=false"}).exitCode, 0);
    EXPECT_TRUE(watched.waitForOut("scene/on = false\n")) << watched.standardOutput().toStdString();

    // serve exits 0 on SIGTERM and saves the tree with the clients' changes; watch says
    // it lost the server and keeps trying.
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
    // The port stays ours until the next server takes it.
    const QString port = address.section(':', 1);
    TransportTest::HeldPort held(port.toInt(), true);
    ASSERT_EQ(held.port(), port.toInt());
    expected["scene"] = [&] {
        QJsonObject scene = expected["scene"].toObject();
        scene["on"] = false;
        return scene;
    }();
    EXPECT_EQ(object(readFile(savedFile)), expected) << readFile(savedFile).toStdString();
    EXPECT_TRUE(
        watched.waitForErr("lost the connection to " + address.toUtf8() + ", reconnecting\n"))
        << watched.standardError().toStdString();

    // A new server on the same port: watch reconnects and reports only what differs
    // from what it saw last.
    QProcess again;
    ASSERT_EQ(
        tool.startServer(again, {"serve", "--listen", "127.0.0.1:" + port, "--tree", savedFile}),
        address);
    held.release();
    EXPECT_TRUE(watched.waitForErr("connected to " + address.toUtf8() + " again\n"))
        << watched.standardError().toStdString();
    ASSERT_EQ(tool.run({"set", address, "scene/title=\"back\""}).exitCode, 0);
    EXPECT_TRUE(watched.waitForOut("scene/title = \"back\"\n"))
        << watched.standardOutput().toStdString();
    EXPECT_EQ(watched.standardOutput().count('\n'), 6) << watched.standardOutput().toStdString();

    EXPECT_TRUE(endsCleanlyOn(watch, SIGINT));
    EXPECT_TRUE(endsCleanlyOn(again, SIGINT));
}

TEST(SessionCommands, WatchEndsOnASignalWhileItsReaderHasStoppedReading) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir folder;
    // A value longer than a pipe holds, printed at once (--initial) into a pipe that is
    // open for reading but never read, as a paused pager's.
    ASSERT_TRUE(
        writeFile(folder.filePath("tree.json"), "{\"big\": \"" + QByteArray(200000, 'x') + "\"}"));
    ToolTest::ToolRunner tool;
    QProcess server;
    const QString address = tool.startServer(
        server, {"serve", "--listen", "0", "--tree", folder.filePath("tree.json")});
    ASSERT_FALSE(address.isEmpty());
    const QByteArray fifo = QFile::encodeName(folder.filePath("out"));
    ASSERT_EQ(::mkfifo(fifo.constData(), 0600), 0);
    const int reader = ::open(fifo.constData(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const int capacity = ::fcntl(reader, F_GETPIPE_SZ);
    QProcess watch;
    watch.setStandardOutputFile(folder.filePath("out"));
    tool.start(watch, {"watch", address, "--initial"});
    EXPECT_TRUE(TransportTest::waitUntil(
        [&] {
            int queued = 0;
            return ::ioctl(reader, FIONREAD, &queued) == 0 && queued >= capacity;
        },
        30000));
    EXPECT_TRUE(endsCleanlyOn(watch, SIGTERM));
    ::close(reader);
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

TEST(SessionCommands, GetLsAndDumpOfOnePath) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir folder;
    ASSERT_TRUE(writeFile(folder.filePath("tree.json"),
                          R"({"scene": {"a": 1, "v": {"@type": "vec3f", "value": [1, 2, 3]}},
                              "sp ace": 1.5})"));
    ToolTest::ToolRunner tool;
    QProcess server;
    const QString address = tool.startServer(
        server, {"serve", "--listen", "0", "--tree", folder.filePath("tree.json")});
    ASSERT_FALSE(address.isEmpty());
    const QByteArray vector = R"({"@type":"vec3f","value":[1,2,3]})";
    // A value from a file: no shell argument to quote.
    ASSERT_TRUE(writeFile(folder.filePath("value.json"), "\"from a file\"\n"));
    const ToolRun fromFile = tool.run({"set", address, "note=@" + folder.filePath("value.json")});
    ASSERT_EQ(fromFile.exitCode, 0) << fromFile.err.constData();

    // Reads: values one per line, all or nothing; paths and types; one part of a dump.
    const QList<QPair<QStringList, QByteArray>> reads = {
        {{"get", address, "scene/v", "scene/a"}, vector + "\n1\n"},
        {{"get", address, "scene"}, R"({"a":1,"v":)" + vector + "}\n"},
        {{"get", address, "note"}, "\"from a file\"\n"},
        {{"ls", address}, "scene/a int\nscene/v vec3f\n\"sp ace\" float\nnote string\n"},
        {{"ls", address, "scene/*", "--json"},
         "{\"path\":\"scene/a\",\"type\":\"int\"}\n{\"path\":\"scene/v\",\"type\":\"vec3f\"}\n"},
        {{"dump", address, "scene/v"}, vector + "\n"},
        {{"dump", address, "--compact"},
         R"({"note":"from a file","scene":{"a":1,"v":)" + vector +
             R"(},"sp ace":1.5})"
             "\n"},
    };
    for (const auto& read : reads) {
        const ToolRun run = tool.run(read.first);
        EXPECT_EQ(run.exitCode, 0) << read.first.join(' ').toStdString() << run.err.constData();
        EXPECT_EQ(run.out, read.second) << read.first.join(' ').toStdString();
    }
    for (const QStringList& missing :
         {QStringList{"get", address, "scene/a", "nope"}, QStringList{"dump", address, "nope"}}) {
        const ToolRun run = tool.run(missing);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(run.out.isEmpty()) << run.out.constData();
        EXPECT_EQ(run.err, "dovel: " + missing.last().toUtf8() + ": " + address.toUtf8() +
                               " holds no such attribute\n");
    }

    // rm: all or none.
    const ToolRun none = tool.run({"rm", address, "note", "nope"});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_EQ(none.err, "dovel: nope: " + address.toUtf8() + " holds no such attribute\n");
    const ToolRun removed = tool.run({"rm", address, "scene", "note"});
    EXPECT_EQ(removed.exitCode, 0) << removed.err.constData();
    EXPECT_EQ(tool.run({"ls", address}).out, "\"sp ace\" float\n");
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

// A server that answers no queries is read and changed the ordinary way, through a copy
// of its tree; only rm, which an ordinary client cannot do, says so.
TEST(SessionCommands, WithoutQueriesTheCommandsTakeACopy) {
    DOVEL_REQUIRE_TOOL();
    Dovel::RemoteNode root(nullptr, "root");
    Dovel::SessionDriver driver;
    Dovel::SessionServer::Options options;
    options.answerQueries = false;
    Dovel::SessionServer server(root, &driver, options);
    ASSERT_TRUE(server.listen(0));
    driver.call(
        [&] { new Tessel::AttributeT<float>(new Tessel::Node(&root, "car"), "speed", 1.5f); });
    const QString address = QStringLiteral("127.0.0.1:%1").arg(server.port());
    ToolTest::ToolRunner tool;
    const ToolRun set = tool.run({"set", address, "car/speed=2.5", "car/name=\"blue\""});
    EXPECT_EQ(set.exitCode, 0) << set.err.constData();
    EXPECT_EQ(tool.run({"get", address, "car/speed", "car/name"}).out, "2.5\n\"blue\"\n");
    EXPECT_EQ(tool.run({"ls", address, "car/*"}).out, "car/speed float\ncar/name string\n");
    const ToolRun rm = tool.run({"rm", address, "car"});
    EXPECT_EQ(rm.exitCode, 1);
    EXPECT_EQ(rm.err, "dovel: " + address.toUtf8() +
                          ": the server answers no queries, and an ordinary client cannot "
                          "remove what it holds\n");
    server.shutdown();
}

TEST(SessionCommands, ErrorsAreOneLineWithTheirStatus) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    ToolTest::ToolRunner tool;

    // Whatever stands at the address, a client ends at once (well inside its time-out
    // of a minute) with exit 1 and one line that says why: nobody listens, a server of
    // another protocol, a server of the other kind, a port a server cannot take.
    const TransportTest::HeldPort nobody;
    ASSERT_NE(nobody.port(), 0);
    const QString refused = QStringLiteral("127.0.0.1:%1").arg(nobody.port());
    TransportTest::RawListener stranger;
    ASSERT_NE(stranger.port(), 0);
    const QString strangerAddress = QStringLiteral("127.0.0.1:%1").arg(stranger.port());
    std::atomic<bool> strangerDone{false};
    std::thread greeter([&] {
        while (!strangerDone.load())
            if (auto peer = stranger.accept(100)) {
                peer->send("SSH-2.0-Test\x1b[2J\r\n");
                peer->waitClosed(10000);
            }
    });
    ASSERT_TRUE(QDir(folder.path()).mkpath("shared"));
    QProcess folderServer;
    const QString folderAddress = tool.startServer(
        folderServer, {"files", "serve", folder.filePath("shared"), "--listen", "127.0.0.1:0"});
    QProcess treeServer;
    const QString treeAddress = tool.startServer(treeServer, {"serve", "--listen", "127.0.0.1:0"});
    ASSERT_FALSE(folderAddress.isEmpty());
    ASSERT_FALSE(treeAddress.isEmpty());
    const QString pulled = folder.filePath("pulled");
    const QByteArray notDovel = ": not a Dovel server (it greeted 'SSH-2.0-Test?[2J')\n";
    const QByteArray folderKind = ": a folder server, not a tree server (use `dovel files pull`)\n";
    const QByteArray treeKind =
        ": a tree server, not a folder server (use `dovel dump` or `dovel watch`)\n";
    const QByteArray taken = ": address already in use\n";
    const QList<QPair<QStringList, QByteArray>> failures = {
        {{"dump", refused, "--timeout", "60"}, refused.toUtf8() + ": connection refused\n"},
        {{"set", refused, "a=1", "--timeout=60"}, refused.toUtf8() + ": connection refused\n"},
        {{"watch", refused, "--timeout", "60"}, refused.toUtf8() + ": connection refused\n"},
        {{"files", "pull", refused, pulled, "--timeout", "60"},
         "pull failed: " + refused.toUtf8() + ": connection refused\n"},
        {{"dump", strangerAddress, "--timeout", "60"}, strangerAddress.toUtf8() + notDovel},
        {{"watch", strangerAddress, "--timeout", "60"}, strangerAddress.toUtf8() + notDovel},
        {{"files", "pull", strangerAddress, pulled, "--timeout", "60"},
         "pull failed: " + strangerAddress.toUtf8() + notDovel},
        {{"dump", folderAddress, "--timeout", "60"}, folderAddress.toUtf8() + folderKind},
        {{"set", folderAddress, "a=1", "--timeout", "60"}, folderAddress.toUtf8() + folderKind},
        {{"files", "pull", treeAddress, pulled, "--timeout", "60"},
         "pull failed: " + treeAddress.toUtf8() + treeKind},
        {{"serve", "--listen", treeAddress}, "cannot listen on " + treeAddress.toUtf8() + taken},
        {{"files", "serve", folder.path(), "--listen", folderAddress},
         "cannot listen on " + folderAddress.toUtf8() + taken},
    };
    for (const auto& failure : failures) {
        const ToolRun run = tool.run(failure.first, 30000);
        EXPECT_EQ(run.exitCode, 1) << failure.first.join(' ').toStdString();
        EXPECT_EQ(run.err, "dovel: " + failure.second) << failure.first.join(' ').toStdString();
    }
    // The library's log lines (-v) quote the greeting too, and escape it as well.
    const ToolRun verbose = tool.run({"dump", strangerAddress, "-v", "--timeout", "60"});
    EXPECT_TRUE(verbose.err.contains("SSH-2.0-Test\\x1b[2J")) << verbose.err.constData();
    EXPECT_FALSE(verbose.err.contains('\x1b')) << verbose.err.constData();
    strangerDone.store(true);
    greeter.join();
    EXPECT_TRUE(endsCleanlyOn(folderServer, SIGTERM));
    EXPECT_TRUE(endsCleanlyOn(treeServer, SIGTERM));

    // A server that takes the connection and says nothing: the time-out ends the wait.
    TransportTest::RawListener silent;
    ASSERT_NE(silent.port(), 0);
    const QByteArray silentAddress = QByteArray("127.0.0.1:") + QByteArray::number(silent.port());
    const ToolRun quiet = tool.run({"dump", silentAddress, "--timeout", "0.5"});
    EXPECT_EQ(quiet.exitCode, 1);
    EXPECT_EQ(quiet.err, "dovel: no session with " + silentAddress + " within 0.5 s (no answer)\n");

    // A tree file that is missing exits 1, one that is malformed 2 (with the usage errors).
    const ToolRun missing = tool.run({"serve", "--tree", folder.filePath("none.json")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err.count('\n'), 1) << missing.err.toStdString();
    ASSERT_TRUE(writeFile(folder.filePath("bad.json"), "{\n  \"a\": 1,\n  \"b\": [1 2]\n}\n"));

    // Usage errors, found before anything connects: exit 2 and one line.
    for (const QStringList& args :
         {QStringList{"dump"},
          QStringList{"dump", "127.0.0.1"},
          QStringList{"dump", "host:70000"},
          QStringList{"dump", refused, "--bogus"},
          QStringList{"dump", refused, "--timeout", "-1"},
          QStringList{"dump", refused, "a", "extra"},
          QStringList{"get", refused, "a//b"},
          QStringList{"set", refused},
          QStringList{"set", refused, "a=not json"},
          QStringList{"set", refused, "a=1", "a=2"},
          QStringList{"set", refused, "a/id=1"},
          QStringList{"set", refused, "o={\"p\": {\"id\": 1}}"},
          QStringList{"set", refused, QByteArray(5000, 'n') + "=1"},
          QStringList{"set", refused, QByteArray("n/").repeated(128) + "x=1"},
          QStringList{"watch", "nohost"},
          QStringList{"serve", "--listen", "nohost"},
          QStringList{"serve", "stray"},
          QStringList{"serve", "--listen", "127.0.0.1:0", "--tree", folder.filePath("bad.json")},
          QStringList{"demo", "--seconds", "0"},
          QStringList{"frobnicate"},
          QStringList{}}) {
        ToolRun run = tool.run(args);
        EXPECT_EQ(run.exitCode, 2) << args.join(' ').toStdString();
        EXPECT_EQ(run.err.count('\n'), args.isEmpty() ? run.err.count('\n') : 1)
            << args.join(' ').toStdString() << ": " << run.err.toStdString();
        EXPECT_TRUE(args.isEmpty() || run.err.startsWith("dovel")) << run.err.toStdString();
    }
}

TEST(SessionCommands, DemoShowsTheClientFollowing) {
    DOVEL_REQUIRE_TOOL();
    ToolTest::ToolRunner tool;
    ToolRun demo = tool.run({"demo", "--seconds", "1"});
    EXPECT_EQ(demo.exitCode, 0) << demo.err.toStdString() << demo.out.toStdString();
    for (const char* text :
         {"client  connected; its copy holds 20 attributes", "summary: 20 attributes shared",
          "at the end the client's tree equals the server's.\n"})
        EXPECT_TRUE(demo.out.contains(text)) << demo.out.toStdString();
}

} // namespace
