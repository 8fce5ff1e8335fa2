// Who gets into the tool's servers, each run as its own process on loopback: the
// default address, login keys, the warning for an open server, a folder server that
// takes no uploads, a read-only tree server, the cap on clients, and idle connections
// that cost few threads while real clients still get in.
#include "TestFiles.h"
#include "ToolProcess.h"
#include "transport/TransportTestUtil.h"

#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/sync/RemoteNode.h"
#include "Tessel/AttributeT.h"
#include "basalt/WaitUtil.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <vector>

namespace {

using namespace ToolTest;
using BasaltTest::waitUntil;
using TestFiles::readFile;
using TestFiles::writeFile;
using TransportTest::clientLogin;
using TransportTest::RawPeer;

// Memory and descriptors are the sanitizers' too: figures of them hold for plain builds.
#ifdef DOVEL_SANITIZED
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

int portOf(const QString& address) {
    return address.section(QLatin1Char(':'), 1).toInt();
}

// The number of threads of a running process.
int threadsOf(QProcess& process) {
    const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(process.processId()));
    const int at = status.indexOf("Threads:");
    return at < 0 ? -1 : status.mid(at + 8, status.indexOf('\n', at) - at - 8).trimmed().toInt();
}

// User and system CPU seconds a running process has used.
double cpuSecondsOf(QProcess& process) {
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(process.processId()));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1.0;
    return (fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

TEST(Access, KeysTheDefaultAddressAndTheWarningForAnOpenServer) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir dir;
    DovelTool tool;
    const QString key = dir.filePath("key");
    QProcess keygen;
    keygen.setStandardOutputFile(key);
    tool.start(keygen, {"keygen"});
    ASSERT_TRUE(keygen.waitForFinished(10000));
    EXPECT_EQ(keygen.exitCode(), 0);
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{64}\n$").match(readFile(key)).hasMatch());
    EXPECT_EQ(QFile(key).permissions() & (QFile::ReadGroup | QFile::ReadOther), 0);

    // A bare port listens on the loopback; with a key, no warning.
    QProcess server;
    const QString address = tool.startServer(server, {"serve", "--listen", "0", "--key-file", key});
    ASSERT_FALSE(address.isEmpty());
    ToolRun right = tool.run({"dump", address, "--key-file", key});
    EXPECT_EQ(right.exitCode, 0) << right.err.toStdString();
    ToolRun wrong = tool.run({"dump", address, "--timeout", "1"});
    EXPECT_EQ(wrong.exitCode, 1) << wrong.err.toStdString();
    tool.environment.insert("DOVEL_KEY_FILE", key);
    EXPECT_EQ(tool.run({"dump", address}).exitCode, 0);
    QFile::setPermissions(key, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
    ToolRun exposed = tool.run({"dump", address});
    EXPECT_EQ(exposed.exitCode, 1);
    EXPECT_EQ(exposed.err, "dovel: the key file " + key.toUtf8() +
                               " can be read by other users; make it yours alone (chmod 600 " +
                               key.toUtf8() + ")\n");
    tool.environment.remove("DOVEL_KEY_FILE");
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
    EXPECT_FALSE(server.readAllStandardError().contains("warning: listening"));

    // Every network and the well-known key: one warning line.
    QProcess open;
    tool.start(open, {"serve", "--listen", "0.0.0.0:0"});
    ProcessOutput output(open);
    EXPECT_TRUE(output.waitForOut("listening on 0.0.0.0:"));
    EXPECT_TRUE(output.waitForErr("\n"));
    EXPECT_EQ(output.standardError(),
              "dovel: warning: listening on 0.0.0.0 with the well-known default key: anyone "
              "who can reach the port can change the tree (give --key-file)\n");
    EXPECT_TRUE(endsCleanlyOn(open, SIGTERM));
}

TEST(Access, AFolderServerTakesNoUploads) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(writeFile(source.filePath("normal.txt"), "what the server serves\n"));
    DovelTool tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"files", "serve", source.path(), "--listen", "0"});
    ASSERT_FALSE(address.isEmpty());

    const QByteArray planted(24, 'x');
    const QByteArray md5 = QCryptographicHash::hash(planted, QCryptographicHash::Md5).toHex();
    for (const QByteArray& upload : {"fileinfo 24 \"/normal.txt\" 1 " + md5 + "\n",
                                     "filepart \"/new/planted.sh\" 24 1\n" + planted}) {
        auto peer = RawPeer::connect(portOf(address));
        ASSERT_TRUE(peer);
        ASSERT_EQ(clientLogin(*peer), QByteArray("ok"));
        peer->send(upload);
        EXPECT_TRUE(peer->waitClosed()) << upload.constData();
    }
    EXPECT_EQ(readFile(source.filePath("normal.txt")), QByteArray("what the server serves\n"));
    EXPECT_FALSE(QFile::exists(source.filePath("new")));
    ToolRun pulled = tool.run({"files", "pull", address, target.path()});
    EXPECT_EQ(pulled.exitCode, 0) << pulled.err.toStdString();
    EXPECT_EQ(readFile(target.filePath("normal.txt")), QByteArray("what the server serves\n"));
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

TEST(Access, AReadOnlyServerKeepsItsTreeAndCapsAndNetworksKeepClientsOut) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath("tree.json"), R"({"car": {"speed": 1.5}})"));
    DovelTool tool;
    QProcess server;
    const QString address = tool.startServer(
        server, {"serve", "--listen", "0", "--tree", dir.filePath("tree.json"), "--read-only"});
    ASSERT_FALSE(address.isEmpty());
    // set says the change did not hold.
    const ToolRun refused = tool.run({"set", address, "car/speed=9"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "dovel: car/speed: the server holds 1.5 (it refused the change)\n");
    const ToolRun kept = tool.run({"rm", address, "car"});
    EXPECT_EQ(kept.exitCode, 1);
    EXPECT_EQ(kept.err,
              "dovel: car: " + address.toUtf8() + " refused the change (it takes none there)\n");
    ToolRun dumped = tool.run({"dump", address});
    EXPECT_EQ(QJsonDocument::fromJson(dumped.out).object(),
              QJsonDocument::fromJson(R"({"car": {"speed": 1.5}})").object())
        << dumped.out.constData();
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));

    // One client at a time, and only from the allowed networks: the next connection,
    // and one from elsewhere, are closed before their greetings.
    for (const QStringList& options :
         {QStringList{"--max-clients", "1"}, QStringList{"--allow", "10.0.0.0/8"}}) {
        SCOPED_TRACE(options.join(' ').toStdString());
        QProcess limited;
        const QString address =
            tool.startServer(limited, QStringList{"serve", "--listen", "0"} + options);
        ASSERT_FALSE(address.isEmpty());
        std::unique_ptr<RawPeer> first;
        if (options.first() == "--max-clients") {
            first = RawPeer::connect(portOf(address));
            ASSERT_TRUE(first);
            ASSERT_EQ(clientLogin(*first), QByteArray("ok"));
        }
        auto refused = RawPeer::connect(portOf(address));
        ASSERT_TRUE(refused);
        EXPECT_TRUE(refused->readLine(5000).isNull());
        EXPECT_TRUE(refused->waitClosed());
        EXPECT_TRUE(endsCleanlyOn(limited, SIGTERM));
    }
}

TEST(Access, IdleConnectionsHoldFewThreadsAndADumpStillGetsIn) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    constexpr int Idle = 2000;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < Idle + 200)
        GTEST_SKIP() << "the descriptor limit is below " << Idle + 200;
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    DovelTool tool;
    QProcess server;
    const QString address = tool.startServer(server, {"serve", "--listen", "0"});
    ASSERT_FALSE(address.isEmpty());
    std::vector<std::unique_ptr<RawPeer>> idle;
    for (int i = 0; i < Idle; ++i) {
        idle.push_back(RawPeer::connect(portOf(address)));
        ASSERT_TRUE(idle.back()) << i;
    }
    const int threads = threadsOf(server);
    EXPECT_GT(threads, 0);
    EXPECT_LT(threads, 100);
    QElapsedTimer timer;
    timer.start();
    ToolRun dumped = tool.run({"dump", address});
    EXPECT_EQ(dumped.exitCode, 0) << dumped.err.toStdString();
    // The connections ahead of it each start and end a thread, which the sanitizers make
    // dear: the bound holds for plain builds, generous for a loaded machine (it takes
    // a few hundred milliseconds).
    if (!Sanitized) {
        EXPECT_LT(timer.elapsed(), 5000);
    }
    std::cout << "threads with " << Idle << " idle connections: " << threads << "; dump took "
              << timer.elapsed() << " ms\n";
    idle.clear();
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
    // Each failed login is a line about its peer, but one kind reaches the terminal only
    // a few times a second, and the rest are counted.
    const QByteArray err = server.readAllStandardError();
    EXPECT_LT(err.count("Handshake failed, closing connection\n"), 40) << err.size() << " bytes";
}

TEST(Access, AServerOutOfDescriptorsIdlesAndServesTheClientsItHas) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    // The sanitizers open pipes of their own to check memory: with no descriptor left
    // they report sound pointers as invalid.
    if (Sanitized)
        GTEST_SKIP() << "a sanitized server cannot run out of descriptors";
    QTemporaryDir folder;
    DovelTool tool;
    QProcess server;
    server.setProcessEnvironment(tool.environment);
    server.start("bash", {"-c", "ulimit -n 64 && exec \"$0\" files serve \"$1\" --listen 0",
                          toolPath(), folder.path()});
    ProcessOutput output(server);
    ASSERT_TRUE(output.waitForOut("\n"));
    const QRegularExpressionMatch listening =
        QRegularExpression("listening on 127\\.0\\.0\\.1:(\\d+)").match(output.standardOutput());
    ASSERT_TRUE(listening.hasMatch()) << output.standardOutput().constData();
    const int port = listening.captured(1).toInt();
    auto client = RawPeer::connect(port);
    ASSERT_TRUE(client);
    ASSERT_EQ(clientLogin(*client), QByteArray("ok"));

    // More connections than descriptors: the server cannot accept them all.
    std::vector<std::unique_ptr<RawPeer>> flood;
    for (int i = 0; i < 200; ++i)
        flood.push_back(RawPeer::connect(port));
    const double cpuBefore = cpuSecondsOf(server);
    QElapsedTimer timer;
    timer.start();
    int pongs = 0;
    while (timer.elapsed() < 2000) {
        client->send("ping flooded\n");
        for (QByteArray line = client->readLine(); !line.isNull(); line = client->readLine())
            if (line == "pong flooded") {
                ++pongs;
                break;
            }
        client->quietFor(200); // a ping now and then: the server's time is the flood's
    }
    const double cpu = cpuSecondsOf(server) - cpuBefore;
    EXPECT_GT(pongs, 2);
    // A spinning accept loop would take a whole core; a tenth is the target.
    EXPECT_LT(cpu, 0.1 * timer.elapsed() / 1000.0 + 0.05) << cpu << " s of CPU";
    flood.clear();
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

// The resident memory of a running process, in bytes.
int64_t residentBytesOf(QProcess& process) {
    const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(process.processId()));
    const int at = status.indexOf("VmRSS:");
    return at < 0 ? -1
                  : status.mid(at + 6, status.indexOf('\n', at) - at - 6)
                            .trimmed()
                            .split(' ')
                            .value(0)
                            .toLongLong() *
                        1024;
}

TEST(Access, ForEveryByteAPeerSendsTheServerHoldsAtMostSixteen) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath("tree.json"), R"({"marker": 0})"));
    DovelTool tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"serve", "--listen", "0", "--tree", dir.filePath("tree.json")});
    ASSERT_FALSE(address.isEmpty());
    ASSERT_EQ(tool.run({"dump", address}).exitCode, 0); // the first session's costs paid
    const int64_t before = residentBytesOf(server);

    // 200 attributes, each at a path of 128 components of 31 characters of its own:
    // a node and a long path per component on the server, for 4 KB sent.
    Dovel::RemoteNode flood(nullptr, "flood");
    Dovel::SessionDriver driver;
    driver.call([&] {
        for (int i = 0; i < 200; ++i) {
            QByteArray path;
            for (int depth = 0; depth < 128; ++depth)
                path += (depth ? "/" : "") +
                        QByteArray::number(i * 1000 + depth).rightJustified(31, 'd');
            flood.addDeepAttribute(path, new Tessel::AttributeT<int32_t>(nullptr, "", i));
        }
        flood.addDeepAttribute("marker", new Tessel::AttributeT<int32_t>(nullptr, "", 0));
    });
    Dovel::SessionClient client(flood, &driver);
    client.connectToHost("127.0.0.1", portOf(address));
    ASSERT_TRUE(waitUntil([&] { return client.stats().batchesApplied.load() > 0; }, 60000));
    // A change made after the flood, in the same session: once the server shows it, the
    // flood has been taken.
    driver.call([&] {
        dynamic_cast<Tessel::AttributeT<int32_t>*>(flood.attribute("marker"))
            ->setValue(2, Tessel::Attribute::LayerRemote);
    });
    ASSERT_TRUE(waitUntil(
        [&] {
            return tool.run({"dump", address}).out.contains("\"marker\": 2");
        },
        60000));
    const int64_t sent = int64_t(client.stats().bytesSent.load());
    const int64_t grown = residentBytesOf(server) - before;
    client.stop();
    std::cout << "sent " << sent << " bytes, the server grew by " << grown << " bytes\n";
    if (!Sanitized) {
        EXPECT_LE(grown, 16 * sent + (32 << 20));
    }
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

TEST(Access, SilentLoginsToABigFolderShareOneList) {
    if (!toolBuilt())
        GTEST_SKIP() << "dovel is not built";
    QTemporaryDir folder;
    for (int i = 0; i < 20000; ++i)
        ASSERT_TRUE(writeFile(folder.filePath(QStringLiteral("d%1/file%2.txt").arg(i / 500).arg(i)),
                              QByteArray::number(i)));
    DovelTool tool;
    QProcess server;
    const QString address =
        tool.startServer(server, {"files", "serve", folder.path(), "--listen", "0"});
    ASSERT_FALSE(address.isEmpty());
    auto first = RawPeer::connect(portOf(address));
    ASSERT_TRUE(first && clientLogin(*first) == "ok");
    ASSERT_EQ(first->readLine().left(9), QByteArray("filelist ")); // the list is built
    const int64_t before = residentBytesOf(server);
    std::vector<std::unique_ptr<RawPeer>> silent;
    for (int i = 0; i < 40; ++i) {
        silent.push_back(RawPeer::connect(portOf(address)));
        ASSERT_TRUE(silent.back() && clientLogin(*silent.back()) == "ok");
    }
    ASSERT_TRUE(waitUntil([&] { return silent.back()->socket().isPendingInput(0); }));
    const int64_t grown = residentBytesOf(server) - before;
    std::cout << "40 silent logins grew the server by " << grown << " bytes\n";
    // One list is about 1 MB here: forty copies of it would be forty.
    if (!Sanitized) {
        EXPECT_LT(grown, 16 << 20);
    }
    silent.clear();
    EXPECT_TRUE(endsCleanlyOn(server, SIGTERM));
}

} // namespace
