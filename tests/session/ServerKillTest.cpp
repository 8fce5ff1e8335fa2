// A server process killed with SIGKILL in the middle of a session and started again on
// the same port: the clients reconnect by themselves, and after the fresh sessions all
// trees hold everything that was in any of them, once. Skipped when the dovel tool has not
// been built next to the test.
#include "SessionHarness.h"

#include "Dovel/session/SessionClient.h"

#include "TestFiles.h"
#include "ToolProcess.h"
#include "transport/TransportTestUtil.h"

#include <QTemporaryDir>

#include <signal.h>

namespace {

using namespace SessionHarness;
using namespace ToolTest;

TEST(ServerKill, ClientsReconnectToTheRestartedServerAndNothingIsLost) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const QString treeFile = folder.path() + "/tree.json";
    ASSERT_TRUE(TestFiles::writeFile(
        treeFile, R"({"scene": {"light": {"power": 2.5, "name": "key"}, "frame": 7}})"));
    ToolRunner tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"serve", "--listen", "127.0.0.1:0", "--tree", treeFile});
    ASSERT_FALSE(address.isEmpty());
    const int port = address.section(':', 1).toInt();

    Side a("scene-a");
    Side b("scene-b");
    Dovel::SessionClient clientA(a.node, &a.driver);
    Dovel::SessionClient clientB(b.node, &b.driver);
    clientA.connectToHost(QStringLiteral("127.0.0.1"), port);
    clientB.connectToHost(QStringLiteral("127.0.0.1"), port);
    ASSERT_TRUE(waitUntil([&] { return hasPath(a, "scene/frame") && hasPath(b, "scene/frame"); }));

    // A change and an addition reach the server and, through it, the other client.
    a.run([&] {
        typed<float>(a.node, "scene/light/power")->setValue(4.0f, L2);
        a.node.addDeepAttribute("scene/props/added",
                                new Tessel::AttributeT<int32_t>(nullptr, "", 11));
    });
    ASSERT_TRUE(waitSame(a, b));
    ASSERT_TRUE(hasPath(b, "scene/props/added"));

    server.kill(); // SIGKILL: nothing is saved, the sockets just end
    ASSERT_TRUE(server.waitForFinished(5000));
    // The port stays ours until the restarted server takes it.
    TransportTest::HeldPort held(port, true);
    ASSERT_EQ(held.port(), port);
    ASSERT_TRUE(waitUntil([&] { return !clientA.isConnected() && !clientB.isConnected(); }));
    // Made while the server is away.
    a.run([&] {
        a.node.addDeepAttribute("scene/props/offline",
                                new Tessel::AttributeT<QString>(nullptr, "", "while away"));
    });

    QProcess restarted;
    ASSERT_EQ(tool.startServer(restarted, {"serve", "--listen", address, "--tree", treeFile}),
              address);
    held.release();
    ASSERT_TRUE(waitUntil([&] { return clientA.isConnected() && clientB.isConnected(); }, 15000));
    // The restarted server knows only its file; the clients bring back the rest.
    ASSERT_TRUE(waitUntil([&] { return hasPath(b, "scene/props/offline"); }, 10000));
    EXPECT_TRUE(waitSame(a, b));
    const auto tree = snapshot(a);
    for (const QByteArray& path : {QByteArray("scene/frame"), QByteArray("scene/light/name"),
                                   QByteArray("scene/light/power"), QByteArray("scene/props/added"),
                                   QByteArray("scene/props/offline")})
        EXPECT_TRUE(tree.contains(path)) << path.constData();
    EXPECT_GE(clientA.stats().sessionsStarted.load(), 2u);
    EXPECT_EQ(attributeCount(a), 5); // every attribute once: the resync made no copies
    EXPECT_EQ(attributeCount(b), 5);

    clientA.stop();
    clientB.stop();
    EXPECT_TRUE(endsCleanlyOn(restarted, SIGTERM));
}

} // namespace
