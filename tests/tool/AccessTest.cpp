// Who gets into the tool's servers, each run as its own process on loopback: the
// default address, login keys, the warning for an open server, a folder server that
// takes no uploads and a read-only tree server. (The caps on clients and networks are
// the transport's Admission tests; what idle or flooding peers cost a server is measured
// by the benchmarks.)
#include "TestFiles.h"
#include "ToolProcess.h"
#include "transport/TransportTestUtil.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using namespace ToolTest;
using TestFiles::readFile;
using TestFiles::writeFile;
using TransportTest::clientLogin;
using TransportTest::RawPeer;

int portOf(const QString& address) {
    return address.section(QLatin1Char(':'), 1).toInt();
}

TEST(Access, KeysTheDefaultAddressAndTheWarningForAnOpenServer) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir dir;
    ToolRunner tool;
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
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(writeFile(source.filePath("normal.txt"), "what the server serves\n"));
    ToolRunner tool;
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

TEST(Access, AReadOnlyServerKeepsItsTree) {
    DOVEL_REQUIRE_TOOL();
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath("tree.json"), R"({"car": {"speed": 1.5}})"));
    ToolRunner tool;
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
}

} // namespace
