// The file commands on the wire, byte for byte: the lines themselves and the names they
// may carry, a FolderServer answered by a hand-driven peer, and the receiving side fed by
// hand over a fake link.
#include "files/FilesTestUtil.h"

#include "Dovel/files/FileCommands.h"
#include "Dovel/files/FileTransferHandler.h"
#include "Dovel/files/FolderServeConnection.h"
#include "Dovel/files/PathPolicy.h"
#include "Dovel/files/ServedList.h"
#include "Dovel/transport/MapBlock.h"
#include "transport/FakeLink.h"

#include <limits>

#include <sys/stat.h>

namespace {

using namespace FilesTest;

const QByteArray AbcMd5 = "900150983cd24fb0d6963f7d28e17f72";
const QByteArray EmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

TEST(FileProtocol, CommandLinesPartCountsAndCarriableNames) {
    namespace H = Dovel::FileCommands;
    EXPECT_EQ(H::sendFileInfoLine("/dir/a b.txt"), QByteArray("sendfileinfo \"/dir/a b.txt\"\n"));
    EXPECT_EQ(H::fileInfoLine(65537, "/x", 2, AbcMd5),
              QByteArray("fileinfo 65537 \"/x\" 2 900150983cd24fb0d6963f7d28e17f72\n"));
    EXPECT_EQ(H::sendPartsLine("/x"), QByteArray("sendparts \"/x\"\n"));
    EXPECT_EQ(H::filePartLine("/x", 1, 2), QByteArray("filepart \"/x\" 1 2\n"));
    EXPECT_EQ(H::announcedParts(0), 0);
    EXPECT_EQ(H::announcedParts(1), 1);
    EXPECT_EQ(H::announcedParts(65536), 1);
    EXPECT_EQ(H::announcedParts(65537), 2);
    EXPECT_EQ(Dovel::PathPolicy::partCount(16777217, 65536), 257);
    EXPECT_EQ(Dovel::PathPolicy::partCount(std::numeric_limits<int64_t>::max(), 65536),
              int64_t(1) << 47); // a peer's size near the top does not wrap
    EXPECT_EQ(Dovel::PathPolicy::partCount(65536, 65536), 1);

    const QString longest = QLatin1Char('/') + QString(Dovel::Limits::MaxFileNameBytes - 1, 'n');
    EXPECT_TRUE(Dovel::PathPolicy::isCarriableName("/a/b c/d.e"));
    EXPECT_TRUE(Dovel::PathPolicy::isCarriableName(longest));
    EXPECT_FALSE(Dovel::PathPolicy::isCarriableName(longest + 'n'));
    EXPECT_FALSE(Dovel::PathPolicy::isCarriableName(longest.left(longest.size() - 1) + "\u00e9"));
    for (const char* bad : {"a", "/a/../b", "/a..b", "//a", "/a/", "/./a", "/a:b", "/a*", "/a?",
                            "/a\"", "/a<", "/a>", "/a\\b", "/a\nb", "/a\x7f"})
        EXPECT_FALSE(Dovel::PathPolicy::isCarriableName(bad)) << bad;
}

TEST(FileProtocol, TheListIsCutIntoMapsThatAPullerTakes) {
    const Dovel::FileInfo info{3, QString::fromLatin1(AbcMd5), {}};
    // 4,096 names of the longest length a puller takes fill more than a map block may
    // hold: they go out in several maps, each one a puller reads, all in name order.
    Dovel::FileList longNames;
    const QString stem = QLatin1Char('/') + QString(Dovel::Limits::MaxFileNameBytes - 6, 'n');
    for (int i = 0; i < 4096; ++i) {
        const QString name = stem + QStringLiteral("%1").arg(i, 5, 10, QLatin1Char('0'));
        longNames.insert(name, info);
    }
    // The names alone fill a block.
    ASSERT_GE(4096 * int64_t(Dovel::Limits::MaxFileNameBytes), Dovel::Limits::MaxMapBlockBytes);
    std::vector<QMap<QString, QString>> chunks;
    Dovel::ServedList::forEachChunk(
        longNames, [&](const QMap<QString, QString>& map) { chunks.push_back(map); });
    ASSERT_GE(chunks.size(), 2u);
    QStringList names;
    for (const auto& chunk : chunks) {
        const QByteArray block = Dovel::MapBlock::encode(chunk);
        EXPECT_LE(block.size(), Dovel::Limits::MaxMapBlockBytes);
        QMap<QString, QString> parsed;
        EXPECT_TRUE(Dovel::MapBlock::parseEntries(block.mid(Dovel::MapBlock::LengthItemBytes),
                                                  chunk.size(), parsed));
        names += chunk.keys();
    }
    EXPECT_EQ(names, longNames.keys());
}

// Logs in to a FolderServer by hand.
std::unique_ptr<RawPeer> loggedIn(int port) {
    auto peer = RawPeer::connect(port);
    if (!peer || TransportTest::clientLogin(*peer) != "ok")
        return nullptr;
    return peer;
}

TEST(FileProtocol, ServerSendsListDescriptionsAndPartsExactly) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    ASSERT_TRUE(writeFile(folder.path() + "/a.txt", "abc"));
    ASSERT_TRUE(writeFile(folder.path() + "/empty", ""));
    ServedFolder served(folder.path());
    auto peer = loggedIn(served.port());
    ASSERT_TRUE(peer);

    // The list: a map header line and its binary block (int32 length item counting
    // itself, then key and value string items), then the closing line.
    const QByteArray expected = QByteArray("filelist 2\n") +
                                QByteArray::fromHex("01000000 78000000") +
                                QByteArray::fromHex("05000000 06000000") + "/a.txt" +
                                QByteArray::fromHex("05000000 22000000") + "3 " + AbcMd5 +
                                QByteArray::fromHex("05000000 06000000") + "/empty" +
                                QByteArray::fromHex("05000000 22000000") + "0 " + EmptyMd5;
    EXPECT_EQ(peer->readExact(expected.size()).toHex(), expected.toHex());
    EXPECT_EQ(nextLine(*peer), QByteArray("filelistend 2"));

    ASSERT_TRUE(peer->send("sendfileinfo \"/a.txt\"\n"));
    EXPECT_EQ(nextLine(*peer), "fileinfo 3 \"/a.txt\" 1 " + AbcMd5);
    ASSERT_TRUE(peer->send("sendfileinfo \"/empty\"\n"));
    EXPECT_EQ(nextLine(*peer), "fileinfo 0 \"/empty\" 0 " + EmptyMd5);
    ASSERT_TRUE(peer->send("sendparts \"/a.txt\"\n"));
    EXPECT_EQ(nextLine(*peer), QByteArray("filepart \"/a.txt\" 3 1"));
    EXPECT_EQ(peer->readExact(3), QByteArray("abc"));
    ASSERT_TRUE(peer->send("sendparts \"/empty\"\n"));
    EXPECT_EQ(nextLine(*peer), QByteArray("filepart \"/empty\" 0 1"));
    ASSERT_TRUE(peer->send("sendfilesync\n"));
    EXPECT_EQ(nextLine(*peer), QByteArray("filesync"));
}

TEST(FileProtocol, APeerThatAsksAndNeverReadsIsDisconnected) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    // A long name makes each answer long, so the answers pile up fast.
    const QString name = QLatin1Char('/') + QString(200, 'q');
    ASSERT_TRUE(writeFile(folder.path() + name, "abc"));
    ServedFolder served(folder.path());
    served.get().setUnreadReplyCeiling(1 << 20);
    auto peer = loggedIn(served.port());
    ASSERT_TRUE(peer);
    QByteArray requests;
    for (int i = 0; i < 64; ++i)
        requests += Dovel::FileCommands::sendFileInfoLine(name);
    // Past the socket's buffers and the ceiling, and then some; the server hangs up first.
    int64_t sent = 0;
    while (sent < (64 << 20) && peer->send(requests))
        sent += requests.size();
    EXPECT_LT(sent, 64 << 20);
    EXPECT_TRUE(peer->waitClosed(10000));

    // Each waiting item counts with what it costs besides its bytes: short answers pile
    // up as items long before their bytes reach the ceiling.
    Dovel::AssetBase asset(folder.path());
    Dovel::ServedList list(asset.index());
    for (const bool over : {false, true}) {
        TransportTest::FakeLink link;
        Dovel::FolderServeConnection handler(link, asset, list, 1 << 20);
        link.waitingItems = (1 << 20) / Dovel::Limits::WaitingItemBytes + (over ? 1 : -1);
        link.feed("sendfilesync\n");
        link.pump(handler);
        EXPECT_EQ(link.ended, over);
        EXPECT_EQ(link.takeWritten(), over ? QByteArray() : QByteArray("filesync\n"));
    }
}

TEST(FileProtocol, ServerHandsOutNothingOutsideItsFolder) {
    QTemporaryDir base;
    ASSERT_TRUE(base.isValid());
    const QString served = base.path() + "/served";
    ASSERT_TRUE(writeFile(base.path() + "/secret", "top secret"));
    ASSERT_TRUE(writeFile(base.path() + "/outside/secret", "top secret"));
    ASSERT_TRUE(writeFile(served + "/ok.txt", "abc"));
    ASSERT_TRUE(QFile::link(base.path() + "/outside", served + "/link"));
    ASSERT_TRUE(QFile::link(base.path() + "/secret", served + "/leak.txt"));
    ASSERT_TRUE(QFile::link(served + "/ok.txt", served + "/inner.txt")); // stays inside
    // Listed too: hidden files. Not listed: downloads under way, dangling links, pipes, and
    // a folder reached again through a link.
    ASSERT_TRUE(writeFile(served + "/.hidden", "h"));
    ASSERT_TRUE(writeFile(served + "/sub/x.filesync.part", "under way"));
    ASSERT_TRUE(QFile::link(served + "/sub", served + "/sub/loop"));
    ASSERT_TRUE(QFile::link(base.path() + "/gone", served + "/dangling"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(served + "/pipe").constData(), 0644), 0);

    ServedFolder server(served);
    auto peer = loggedIn(server.port());
    ASSERT_TRUE(peer);
    ASSERT_EQ(nextLine(*peer), QByteArray("filelist 3")); // ok.txt, inner.txt, .hidden
    const QByteArray list = readMapBlock(*peer);
    EXPECT_EQ(nextLine(*peer), QByteArray("filelistend 3"));
    EXPECT_TRUE(list.contains("/.hidden"));
    for (const char* absent : {"secret", "leak", "filesync", "loop", "dangling", "pipe"})
        EXPECT_FALSE(list.contains(absent)) << absent;

    // Every request but the last goes unanswered: the sync answer is the next line.
    ASSERT_TRUE(peer->send("sendfileinfo \"/../secret\"\n"
                           "sendparts \"/../secret\"\n"
                           "sendfileinfo \"/link/secret\"\n"
                           "sendparts \"/link/secret\"\n"
                           "sendfileinfo \"/leak.txt\"\n"
                           "sendparts \"/leak.txt\"\n"
                           "sendfileinfo \"secret\"\n"
                           "sendfileinfo \"/missing\"\n"
                           "sendfilesync\n"
                           "sendfileinfo \"/inner.txt\"\n"));
    EXPECT_EQ(nextLine(*peer), QByteArray("filesync"));
    EXPECT_EQ(nextLine(*peer), "fileinfo 3 \"/inner.txt\" 1 " + AbcMd5);

    // A file opened by a checked path is used only if it is still that path's file: one
    // reached through a folder that a link replaced meanwhile is not.
    const QString realBase = QDir(base.path()).canonicalPath();
    for (const auto& one : {std::make_pair(realBase + "/served/ok.txt", true),
                            std::make_pair(realBase + "/served/link/secret", false)}) {
        QFile opened(one.first);
        ASSERT_TRUE(opened.open(QIODevice::ReadOnly)) << one.first.toStdString();
        EXPECT_EQ(Dovel::PathPolicy::openedPath(opened.handle()) == one.first, one.second);
    }
}

// A receiving handler that records the ends of its downloads.
class RecordingHandler : public Dovel::FileTransferHandler {
public:
    RecordingHandler(Dovel::ConnectionLink& link, Dovel::AssetBase& asset)
        : Dovel::FileTransferHandler(link, asset) {}

    QStringList finished() const {
        Basalt::Guard guard(mutex);
        return TransportTest::copyOf(ends);
    }

protected:
    void downloadFinished(const QString& name, bool success) override {
        Basalt::Guard guard(mutex);
        ends.append(name + (success ? " ok" : " failed"));
    }

private:
    mutable Basalt::Mutex mutex;
    QStringList ends;
};

// A RecordingHandler that logged in over a fake link, without sockets or threads of the
// connection, into `asset`: fed by hand, its lines read back by hand.
struct FakeFed {
    TransportTest::FakeLink link;
    RecordingHandler handler;

    explicit FakeFed(Dovel::AssetBase& asset) : handler(link, asset) { hooks().connected(); }
    ~FakeFed() { drop(); }
    Dovel::ConnectionHandler& hooks() { return handler; }
    // The link ends (again, at the end).
    void drop() { hooks().disconnected(); }

    // Reads what was fed, then lets the handler finish what it may while the peer is
    // quiet, as the connection does, until `entry` has ended.
    bool ended(const QString& entry) {
        link.pump(handler);
        return waitUntil([&] {
            if (hooks().wantsIdle())
                hooks().idle();
            return handler.finished().contains(entry);
        });
    }
    QByteArray answer(const QByteArray& bytes) {
        link.feed(bytes);
        link.pump(handler);
        return link.takeWritten();
    }
};

// A folder to receive into, inside a temporary base, and one connection into it.
struct Receiving {
    QTemporaryDir base;
    QString folder = base.path() + "/mine";
    Dovel::AssetBase asset{folder};
    FakeFed fed{asset};
};

// What a receiver writes: nothing outside its folder, and nothing of a download whose
// checksum does not match, hashed beside the reader, nor of its failed attempts.
TEST(FileProtocol, ReceiverWritesOnlyInsideItsFolderAndOnlyWhatMatchesItsChecksum) {
    Receiving in;
    FakeFed& fed = in.fed;
    // Names that would leave the folder are refused before anything is written, and
    // the stream stays framed after the raw bytes of a refused part.
    const QByteArray abc = " 1 " + AbcMd5 + "\n";
    EXPECT_EQ(fed.answer("fileinfo 3 \"/../evil\"" + abc + "fileinfo 3 \"evil\"" + abc +
                         "filepart \"/../evil\" 3 1\nabcfileinfo 3 \"/good\"" + abc),
              QByteArray("sendparts \"/good\"\n"));
    fed.link.feed("filepart \"/good\" 3 1\nabc");
    ASSERT_TRUE(fed.ended("/good ok"));
    EXPECT_EQ(readFile(in.folder + "/good"), QByteArray("abc"));
    EXPECT_EQ(fed.link.refused, QStringList{"fileinfo 3 \"evil\" " + abc.trimmed()});
    EXPECT_EQ(snapshot(in.base.path()).keys(), QStringList{"/mine/good"});
    EXPECT_FALSE(fed.link.ended);

    const QByteArray bytes = patternBytes(5 * 65536 + 100, 11);
    const QByteArray info =
        "fileinfo " + QByteArray::number(bytes.size()) + " \"/m/multi\" 6 " + md5Of(bytes) + "\n";
    auto part = [&](int n, const QByteArray& content) {
        const QByteArray piece = content.mid((n - 1) * 65536, 65536);
        return "filepart \"/m/multi\" " + QByteArray::number(piece.size()) + " " +
               QByteArray::number(n) + "\n" + piece;
    };
    auto whole = [&](const QByteArray& content) {
        QByteArray all;
        for (int n = 1; n <= 6; ++n)
            all += part(n, content);
        return all;
    };
    const QByteArray asked = "sendparts \"/m/multi\"\n";

    // One wrong byte in the third of six parts: all are written, the hash tells at the end.
    QByteArray wrong = bytes;
    wrong[2 * 65536 + 7] = char(wrong[2 * 65536 + 7] ^ 1);
    EXPECT_EQ(fed.answer(info), asked);
    fed.link.feed(whole(wrong));
    ASSERT_TRUE(fed.ended("/m/multi failed"));
    EXPECT_TRUE(tempFiles(in.folder).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(in.folder + "/m/multi"));

    // Begun again and failed by a part out of order, then begun once more and sent whole:
    // the parts of the failed attempts must not reach the last attempt's checksum.
    EXPECT_EQ(fed.answer(info), asked);
    fed.answer(part(1, bytes) + part(2, bytes) + part(4, bytes));
    EXPECT_EQ(fed.handler.finished().count("/m/multi failed"), 2);
    EXPECT_TRUE(tempFiles(in.folder).isEmpty());
    EXPECT_EQ(fed.answer(info), asked);
    fed.link.feed(whole(bytes));
    ASSERT_TRUE(fed.ended("/m/multi ok"));
    EXPECT_EQ(readFile(in.folder + "/m/multi"), bytes);
    EXPECT_TRUE(tempFiles(in.folder).isEmpty());
}

// The downloads of a folder are kept per connection: a name one connection fetches is
// refused to another, and a connection that goes away takes its own downloads and
// their temporary files along, and only those.
TEST(FileProtocol, TwoConnectionsIntoOneFolderKeepTheirDownloadsApart) {
    Receiving in;
    FakeFed& first = in.fed;
    FakeFed second(in.asset);
    const QByteArray big = patternBytes(2 * 65536, 3);
    const QByteArray info = " 2 " + md5Of(big) + "\n";
    EXPECT_EQ(
        first.answer("fileinfo 131072 \"/a/half\"" + info + "fileinfo 131072 \"/none\"" + info),
        QByteArray("sendparts \"/a/half\"\nsendparts \"/none\"\n"));
    EXPECT_EQ(second.answer("fileinfo 131072 \"/a/half\"" + info + "fileinfo 131072 \"/b\"" + info),
              QByteArray("sendparts \"/b\"\n"));
    EXPECT_EQ(second.handler.finished(), QStringList{"/a/half failed"});
    first.answer("filepart \"/a/half\" 65536 1\n" + big.left(65536));
    second.answer("filepart \"/b\" 65536 1\n" + big.left(65536));
    EXPECT_EQ(in.asset.downloads().count(), 3);
    EXPECT_EQ(tempFiles(in.folder).size(), 2);

    first.drop(); // the first peer goes away mid-transfer
    EXPECT_EQ(in.asset.downloads().count(), 1);
    EXPECT_EQ(tempFiles(in.folder), QStringList{in.folder + "/b.filesync.part"});
    EXPECT_FALSE(QFileInfo::exists(in.folder + "/a/half"));
    second.link.feed("filepart \"/b\" 65536 2\n" + big.mid(65536));
    ASSERT_TRUE(second.ended("/b ok"));
    EXPECT_EQ(readFile(in.folder + "/b"), big);
    EXPECT_EQ(in.asset.downloads().count(), 0);
    second.drop();
}

} // namespace
