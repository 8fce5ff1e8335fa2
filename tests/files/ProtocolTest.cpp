// The file commands on the wire, byte for byte: the lines themselves, a FolderServer
// answered by a hand-driven peer, and the receiving side fed by hand over a fake link or
// by a hand-driven server.
#include "files/FilesTestUtil.h"

#include "Dovel/files/FileCommands.h"
#include "Dovel/files/FileTransferHandler.h"
#include "Dovel/files/ProgressSender.h"
#include "Dovel/files/ServedList.h"
#include "Dovel/transport/ConnectionThread.h"
#include "Dovel/transport/MapBlock.h"
#include "transport/FakeLink.h"

#include "Basalt/Condition.h"
#include "Basalt/Trace.h"

#include <thread>

namespace {

using namespace FilesTest;
using TransportTest::RawListener;

const QByteArray AbcMd5 = "900150983cd24fb0d6963f7d28e17f72";
const QByteArray EmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

TEST(FileProtocol, CommandLinesAndAnnouncedPartCounts) {
    namespace H = Dovel::FileCommands;
    EXPECT_EQ(H::sendFileInfoLine("/dir/a b.txt"), QByteArray("sendfileinfo \"/dir/a b.txt\"\n"));
    EXPECT_EQ(H::fileInfoLine(65537, "/x", 2, AbcMd5),
              QByteArray("fileinfo 65537 \"/x\" 2 900150983cd24fb0d6963f7d28e17f72\n"));
    EXPECT_EQ(H::sendPartsLine("/x"), QByteArray("sendparts \"/x\"\n"));
    EXPECT_EQ(H::filePartLine("/x", 1, 2), QByteArray("filepart \"/x\" 1 2\n"));
    EXPECT_EQ(H::filePartLine("/e", 0, 1), QByteArray("filepart \"/e\" 0 1\n"));
    EXPECT_EQ(H::announcedParts(0), 0);
    EXPECT_EQ(H::announcedParts(1), 1);
    EXPECT_EQ(H::announcedParts(65536), 1);
    EXPECT_EQ(H::announcedParts(65537), 2);
}

TEST(FileProtocol, TheListIsCutIntoMapsOfAtMost4096EntriesThatAPullerTakes) {
    using Serve = Dovel::ServedList;
    const Dovel::FileInfo info{3, QString::fromLatin1(AbcMd5), {}};
    auto chunksOf = [](const Dovel::FileList& list) {
        std::vector<QMap<QString, QString>> chunks;
        Serve::forEachChunk(list,
                            [&](const QMap<QString, QString>& map) { chunks.push_back(map); });
        return chunks;
    };
    // Short names: by count.
    Dovel::FileList shortNames;
    for (int i = 0; i < 10000; ++i)
        shortNames.insert(QStringLiteral("/f%1").arg(i, 5, 10, QLatin1Char('0')), info);
    auto chunks = chunksOf(shortNames);
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].size(), 4096);
    EXPECT_EQ(chunks[1].size(), 4096);
    EXPECT_EQ(chunks[2].size(), 10000 - 2 * 4096);
    EXPECT_EQ(chunks[0].firstKey(), QStringLiteral("/f00000"));
    EXPECT_EQ(chunks[2].lastKey(), QStringLiteral("/f09999"));
    EXPECT_EQ(chunks[0].value(QStringLiteral("/f00001")), "3 " + QString::fromLatin1(AbcMd5));

    // 4,096 names of the longest length a puller takes fill more than a map block may
    // hold: they go out in several maps, each one a puller reads, all in name order.
    Dovel::FileList longNames;
    QMap<QString, QString> asOneMap;
    const QString stem = QLatin1Char('/') + QString(Dovel::Limits::MaxFileNameBytes - 6, 'n');
    for (int i = 0; i < 4096; ++i) {
        const QString name = stem + QStringLiteral("%1").arg(i, 5, 10, QLatin1Char('0'));
        longNames.insert(name, info);
        asOneMap.insert(name, "3 " + info.md5);
    }
    ASSERT_GT(Dovel::MapBlock::encode(asOneMap).size(), Dovel::Limits::MaxMapBlockBytes);
    chunks = chunksOf(longNames);
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
    if (!peer)
        return nullptr;
    if (TransportTest::clientLogin(*peer) != "ok")
        return nullptr;
    return peer;
}

TEST(FileProtocol, ServerSendsListDescriptionsAndPartsExactly) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    ASSERT_TRUE(writeFile(folder.path() + "/a.txt", "abc"));
    ASSERT_TRUE(writeFile(folder.path() + "/empty", ""));
    ServedFolder served(folder.path());
    ASSERT_TRUE(served.isListening());
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
    ASSERT_TRUE(served.isListening());
    served.get().setUnreadReplyCeiling(1 << 20);
    Basalt::TraceCapture capture;
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
    EXPECT_EQ(capture.count("which goes on asking without reading; disconnecting",
                            Basalt::Trace::Warning),
              1)
        << capture.dump().toStdString();
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

    Basalt::TraceCapture capture;
    ServedFolder server(served);
    ASSERT_TRUE(server.isListening());
    auto peer = loggedIn(server.port());
    ASSERT_TRUE(peer);
    QByteArray list;
    for (;;) {
        const QByteArray line = nextLine(*peer);
        ASSERT_FALSE(line.isNull());
        if (line.startsWith("filelistend")) {
            EXPECT_EQ(line, QByteArray("filelistend 2")); // ok.txt and inner.txt
            break;
        }
        ASSERT_TRUE(line.startsWith("filelist "));
        list += readMapBlock(*peer);
    }
    EXPECT_FALSE(list.contains("secret"));
    EXPECT_FALSE(list.contains("leak"));
    EXPECT_TRUE(capture.contains("Skipping '/leak.txt'"));
    EXPECT_TRUE(capture.contains("Skipping '/link'"));

    ASSERT_TRUE(peer->send("sendfileinfo \"/../secret\"\n"
                           "sendparts \"/../secret\"\n"
                           "sendfileinfo \"/link/secret\"\n"
                           "sendparts \"/link/secret\"\n"
                           "sendfileinfo \"/leak.txt\"\n"
                           "sendparts \"/leak.txt\"\n"
                           "sendfileinfo \"secret\"\n"
                           "sendfileinfo \"/missing\"\n"
                           "sendfilesync\n"));
    // Every request above goes unanswered: the sync answer is the next line.
    EXPECT_EQ(nextLine(*peer), QByteArray("filesync"));
    ASSERT_TRUE(peer->send("sendfileinfo \"/inner.txt\"\n"));
    EXPECT_EQ(nextLine(*peer), "fileinfo 3 \"/inner.txt\" 1 " + AbcMd5);
    EXPECT_TRUE(peer->quietFor(100));

    EXPECT_EQ(capture.count("# Refusing '/../secret'"), 2) << capture.dump().toStdString();
    EXPECT_EQ(capture.count("# Refusing '/link/secret'"), 2);
    EXPECT_EQ(capture.count("# Refusing '/leak.txt'"), 2);
    EXPECT_TRUE(capture.contains("Failed to parse command 'sendfileinfo \"secret\"'"));
    EXPECT_TRUE(capture.contains("FileTransferHandler::commitUpload#  file '/missing' doesn't "
                                 "exist. Not uploaded"));
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

// The receiving side over a fake link, without sockets or threads of the connection: a
// RecordingHandler that logged in, fed by hand, its lines read back by hand.
struct FakeFed {
    QTemporaryDir base;
    QString folder = base.path() + "/mine";
    Dovel::AssetBase asset{folder};
    TransportTest::FakeLink link;
    RecordingHandler handler{link, asset};

    FakeFed() { static_cast<Dovel::ConnectionHandler&>(handler).connected(); }
    ~FakeFed() { drop(); }
    // The link ends (again, at the end).
    void drop() { static_cast<Dovel::ConnectionHandler&>(handler).disconnected(); }

    // Reads what was fed, then lets the handler finish what it may while the peer is
    // quiet, as the connection does, until `entry` has ended.
    bool ended(const QString& entry) {
        link.pump(handler);
        auto& hooks = static_cast<Dovel::ConnectionHandler&>(handler);
        return waitUntil([&] {
            if (hooks.wantsIdle())
                hooks.idle();
            return handler.finished().contains(entry);
        });
    }
    QByteArray answer(const QByteArray& bytes) {
        link.feed(bytes);
        link.pump(handler);
        return link.takeWritten();
    }
};

TEST(FileProtocol, ReceiverRefusesBadNamesAndFailsPartsOutOfOrder) {
    Basalt::TraceCapture capture;
    FakeFed fed;

    // Names that would leave the folder are refused before anything is written, and
    // the stream stays framed after the raw bytes of a refused part.
    EXPECT_EQ(fed.answer("fileinfo 3 \"/../evil\" 1 " + AbcMd5 +
                         "\n"
                         "fileinfo 3 \"evil\" 1 " +
                         AbcMd5 +
                         "\n"
                         "filepart \"/../evil\" 3 1\nabc"
                         "fileinfo 3 \"/good\" 1 " +
                         AbcMd5 + "\n"),
              QByteArray("sendparts \"/good\"\n"));
    fed.link.feed("filepart \"/good\" 3 1\nabc");
    ASSERT_TRUE(fed.ended("/good ok"));
    EXPECT_EQ(readFile(fed.folder + "/good"), QByteArray("abc"));
    EXPECT_TRUE(capture.contains("Filename can't contain '..' and it has to start with '/': "
                                 "/../evil"));
    EXPECT_EQ(fed.link.refused, QStringList{"fileinfo 3 \"evil\" 1 " + AbcMd5});
    EXPECT_TRUE(capture.contains("received file part 1 but we expected 1: '/../evil'"));
    EXPECT_FALSE(QFileInfo::exists(fed.base.path() + "/evil"));
    EXPECT_FALSE(QFileInfo::exists(fed.base.path() + "/evil.filesync.part"));

    // A part out of order fails the download and removes what was written.
    const QByteArray big = patternBytes(3 * 65536, 7);
    const QByteArray bigMd5 = QCryptographicHash::hash(big, QCryptographicHash::Md5).toHex();
    EXPECT_EQ(fed.answer("fileinfo 196608 \"/sub/big\" 3 " + bigMd5 + "\n"),
              QByteArray("sendparts \"/sub/big\"\n"));
    fed.answer("filepart \"/sub/big\" 65536 1\n" + big.left(65536));
    EXPECT_EQ(fed.asset.downloads().currentParts("/sub/big"), 1);
    EXPECT_TRUE(QFileInfo::exists(fed.folder + "/sub/big.filesync.part"));
    fed.link.feed("filepart \"/sub/big\" 65536 3\n" + big.mid(2 * 65536));
    ASSERT_TRUE(fed.ended("/sub/big failed"));
    EXPECT_TRUE(capture.contains("received file part 3 but we expected 2: '/sub/big'"));
    EXPECT_TRUE(capture.contains("File Download for '/sub/big' failed"));
    EXPECT_FALSE(fed.asset.downloads().isDownloading("/sub/big"));
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(fed.folder + "/sub/big"));

    // A checksum that does not match leaves neither the file nor its temporary file.
    EXPECT_EQ(fed.answer("fileinfo 3 \"/wrong\" 1 " + EmptyMd5 + "\n"),
              QByteArray("sendparts \"/wrong\"\n"));
    fed.link.feed("filepart \"/wrong\" 3 1\nabc");
    ASSERT_TRUE(fed.ended("/wrong failed"));
    EXPECT_TRUE(capture.contains("md5 mismatch for '" + fed.folder + "/wrong.filesync.part'"));
    EXPECT_FALSE(QFileInfo::exists(fed.folder + "/wrong"));
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());

    // The same file twice at once is refused the second time.
    EXPECT_EQ(fed.answer("fileinfo 196608 \"/twice\" 3 " + bigMd5 +
                         "\n"
                         "fileinfo 196608 \"/twice\" 3 " +
                         bigMd5 + "\n"),
              QByteArray("sendparts \"/twice\"\n"));
    EXPECT_TRUE(capture.contains("File '/twice' is being downloaded already"));
    fed.link.feed("filepart \"/twice\" 65536 1\n" + big.left(65536) +
                  "filepart \"/twice\" 65536 2\n" + big.mid(65536, 65536) +
                  "filepart \"/twice\" 65536 3\n" + big.mid(2 * 65536));
    ASSERT_TRUE(fed.ended("/twice ok"));
    EXPECT_EQ(readFile(fed.folder + "/twice"), big);
    EXPECT_FALSE(fed.link.ended);
}

TEST(FileProtocol, HashedBesideTheReaderAMismatchStillFailsAndARetryStartsClean) {
    Basalt::TraceCapture capture;
    FakeFed fed;
    const QByteArray bytes = patternBytes(5 * 65536 + 100, 11);
    const QByteArray md5 = QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
    const QByteArray info =
        "fileinfo " + QByteArray::number(bytes.size()) + " \"/m/multi\" 6 " + md5 + "\n";
    auto part = [&](int n, const QByteArray& content) {
        const QByteArray piece = content.mid((n - 1) * 65536, 65536);
        return "filepart \"/m/multi\" " + QByteArray::number(piece.size()) + " " +
               QByteArray::number(n) + "\n" + piece;
    };
    const QByteArray asked = "sendparts \"/m/multi\"\n";

    // One wrong byte in the third of six parts: all are written, the hash tells at the end.
    QByteArray wrong = bytes;
    wrong[2 * 65536 + 7] = char(wrong[2 * 65536 + 7] ^ 1);
    EXPECT_EQ(fed.answer(info), asked);
    QByteArray all;
    for (int n = 1; n <= 6; ++n)
        all += part(n, wrong);
    fed.link.feed(all);
    ASSERT_TRUE(fed.ended("/m/multi failed"));
    EXPECT_TRUE(capture.contains("md5 mismatch for '" + fed.folder + "/m/multi.filesync.part'"));
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(fed.folder + "/m/multi"));

    // Begun again and failed after two parts, then begun once more and sent whole: the
    // parts of the failed attempts must not reach the last attempt's checksum.
    EXPECT_EQ(fed.answer(info), asked);
    fed.answer(part(1, bytes) + part(2, bytes) + part(4, bytes));
    EXPECT_EQ(fed.handler.finished().count("/m/multi failed"), 2);
    EXPECT_EQ(fed.answer(info), asked);
    all.clear();
    for (int n = 1; n <= 6; ++n)
        all += part(n, bytes);
    fed.link.feed(all);
    ASSERT_TRUE(fed.ended("/m/multi ok"));
    EXPECT_EQ(readFile(fed.folder + "/m/multi"), bytes);
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());
}

// A file of 8 MiB, large enough that its hash still runs when its last part has been
// written: its description and its parts as a server sends them under `name`.
struct BigFile {
    static constexpr int Parts = 128;
    QByteArray bytes;

    explicit BigFile(int seed) : bytes(patternBytes(Parts * 65536, seed)) {}
    QByteArray info(const QByteArray& name) const {
        return "fileinfo " + QByteArray::number(bytes.size()) + " \"" + name + "\" " +
               QByteArray::number(Parts) + " " +
               QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex() + "\n";
    }
    QByteArray parts(const QByteArray& name) const {
        QByteArray all;
        for (int n = 1; n <= Parts; ++n)
            all += "filepart \"" + name + "\" 65536 " + QByteArray::number(n) + "\n" +
                   bytes.mid((n - 1) * 65536, 65536);
        return all;
    }
};

TEST(FileProtocol, AFileWhoseHashRunsOnEndsBeforeItsNameIsUsedAgainAndInTheOrderItCame) {
    Basalt::TraceCapture capture;
    FakeFed fed;
    const BigFile big(5);
    const QByteArray& a = big.bytes;
    const QByteArray aInfo = big.info("/a");
    auto partsOf = [&](const QByteArray& name) { return big.parts(name); };
    EXPECT_EQ(fed.answer(aInfo + "fileinfo 3 \"/b\" 1 " + EmptyMd5 + "\nfileinfo 3 \"/c\" 1 " +
                         AbcMd5 + "\n"),
              QByteArray("sendparts \"/a\"\nsendparts \"/b\"\nsendparts \"/c\"\n"));

    // /b and /c are still to come, so /a's hash may run on while the next lines are
    // read; a line about the same name ends that download before it is looked at, so
    // that the second description starts a new download instead of being refused.
    EXPECT_EQ(fed.answer(partsOf("/a") + aInfo), QByteArray("sendparts \"/a\"\n"));
    EXPECT_EQ(fed.handler.finished(), QStringList{"/a ok"});
    EXPECT_EQ(readFile(fed.folder + "/a"), a);
    EXPECT_FALSE(capture.contains("being downloaded already"));

    // The last file expected waits for every hash; downloads end in the order they came.
    fed.link.feed("filepart \"/b\" 3 1\nabc" + partsOf("/a") + "filepart \"/c\" 3 1\nabc");
    ASSERT_TRUE(fed.ended("/c ok"));
    EXPECT_EQ(fed.handler.finished(), (QStringList{"/a ok", "/b failed", "/a ok", "/c ok"}));
    EXPECT_TRUE(capture.contains("md5 mismatch for '" + fed.folder + "/b.filesync.part'"));
    EXPECT_EQ(readFile(fed.folder + "/c"), QByteArray("abc"));
    EXPECT_EQ(fed.asset.downloads().count(), 0);
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());

    // A download whose parts have all come is finished even when the peer goes away
    // while its hash runs.
    EXPECT_EQ(fed.answer(aInfo + "fileinfo 3 \"/e\" 1 " + AbcMd5 + "\n"),
              QByteArray("sendparts \"/a\"\nsendparts \"/e\"\n"));
    QFile::remove(fed.folder + "/a");
    fed.answer(partsOf("/a"));
    fed.drop();
    EXPECT_EQ(fed.asset.downloads().count(), 0);
    EXPECT_EQ(fed.handler.finished().mid(4), QStringList{"/a ok"});
    EXPECT_EQ(readFile(fed.folder + "/a"), a);
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());
}

TEST(FileProtocol, ADownloadWholeWhileAnotherIsExpectedEndsWhenThePeerFallsQuiet) {
    FakeFed fed;
    const BigFile a(9);
    EXPECT_EQ(fed.answer(a.info("/a") + "fileinfo 3 \"/b\" 1 " + AbcMd5 + "\n"),
              QByteArray("sendparts \"/a\"\nsendparts \"/b\"\n"));
    // /b never comes, and nothing else either.
    fed.link.feed(a.parts("/a"));
    ASSERT_TRUE(fed.ended("/a ok"));
    EXPECT_EQ(readFile(fed.folder + "/a"), a.bytes);
    EXPECT_TRUE(fed.asset.downloads().isDownloading("/b"));
}

TEST(FileProtocol, DroppedConnectionClearsItsDownloads) {
    FakeFed fed;
    const QByteArray big = patternBytes(2 * 65536, 3);
    const QByteArray md5 = QCryptographicHash::hash(big, QCryptographicHash::Md5).toHex();
    EXPECT_EQ(fed.answer("fileinfo 131072 \"/a/half\" 2 " + md5 + "\nfileinfo 131072 \"/none\" 2 " +
                         md5 + "\n"),
              QByteArray("sendparts \"/a/half\"\nsendparts \"/none\"\n"));
    fed.answer("filepart \"/a/half\" 65536 1\n" + big.left(65536));
    EXPECT_EQ(fed.asset.downloads().currentParts("/a/half"), 1);
    EXPECT_EQ(fed.asset.downloads().count(), 2);
    EXPECT_EQ(tempFiles(fed.folder).size(), 1);

    fed.drop(); // the peer goes away mid-transfer
    EXPECT_EQ(fed.asset.downloads().count(), 0);
    EXPECT_TRUE(tempFiles(fed.folder).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(fed.folder + "/a/half"));
}

} // namespace

namespace {

TEST(FileProtocol, UploadPausesWhileThirtyTwoMiBAreUnsent) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const int size = 48 << 20;
    const QByteArray bytes = patternBytes(size, 48);
    ASSERT_TRUE(writeFile(folder.path() + "/large.bin", bytes));
    ServedFolder served(folder.path());
    ASSERT_TRUE(served.isListening());
    auto peer = loggedIn(served.port());
    ASSERT_TRUE(peer);
    ASSERT_EQ(peer->readLine(), QByteArray("filelist 1"));
    ASSERT_FALSE(readMapBlock(*peer).isNull());
    ASSERT_EQ(nextLine(*peer), QByteArray("filelistend 1"));

    // The peer asks and then reads nothing: the upload fills the writer up to the
    // ceiling and waits there instead of reading the whole file into memory.
    ASSERT_TRUE(peer->send("sendparts \"/large.bin\"\n"));
    const auto connections = served.get().instances();
    ASSERT_EQ(connections.size(), 1);
    const auto& connection = connections.first();
    const int64_t ceiling = Dovel::FileUploader::MaxBufferedUpload;
    ASSERT_TRUE(
        waitUntil([&] { return connection->bufferedDataSize() >= ceiling - (1 << 20); }, 20000));
    const uint32_t sentBefore = connection->txBytes();
    EXPECT_LT(connection->bufferedDataSize(), ceiling + 2 * 65536);
    EXPECT_LT(sentBefore, uint32_t(size - ceiling)); // most of the file is still unread

    // Reading resumes it: every part arrives, in order, byte-identical.
    QByteArray received;
    for (int part = 1; received.size() < size; ++part) {
        const QByteArray line = nextLine(*peer, 10000);
        const int count = std::min(65536, size - received.size());
        ASSERT_EQ(line, QByteArray("filepart \"/large.bin\" ") + QByteArray::number(count) + " " +
                            QByteArray::number(part));
        received += peer->readExact(count, 10000);
    }
    EXPECT_TRUE(received == bytes);
}

// Holds the build that reports to it at its first text until released.
class HeldBuild : public Dovel::ProgressSender {
public:
    void transferInfo(const QString&) override {
        Basalt::Guard guard(mutex);
        entered = true;
        while (!released)
            condition.wait(mutex, 100);
    }
    bool hasEntered() {
        Basalt::Guard guard(mutex);
        return entered;
    }
    void release() {
        Basalt::Guard guard(mutex);
        released = true;
        condition.wakeAll(mutex);
    }

private:
    Basalt::Mutex mutex;
    Basalt::Condition condition;
    bool entered = false;
    bool released = false;
};

TEST(FileProtocol, APullAnswersWhileItsFolderIsListedAndComparesOnceBothListsAreIn) {
    QTemporaryDir base;
    ASSERT_TRUE(base.isValid());
    const QString folder = base.path() + "/mine";
    ASSERT_TRUE(writeFile(folder + "/same", "abc"));
    Dovel::AssetBase asset(folder);
    const uint64_t generation = asset.index().generation();
    HeldBuild held;
    std::thread build([&] { asset.buildFileList(&held); });
    ASSERT_TRUE(waitUntil([&] { return held.hasEntered(); }));

    RawListener listener;
    auto pull = Dovel::FolderPull::create(asset, false);
    pull->start("127.0.0.1", listener.port(), generation);
    auto server = listener.accept();
    ASSERT_TRUE(server && TransportTest::serveLogin(*server, "Heliotrope 2.6.1", true));

    // The whole server list arrives while the local folder is still being listed: the
    // pull keeps answering pings and asks for nothing yet. A "filesync" that answers no
    // request of its does not end it.
    const QMap<QString, QString> list{{"/new", "3 " + AbcMd5}, {"/same", "3 " + AbcMd5}};
    ASSERT_TRUE(server->send("filelist 2\n" + Dovel::MapBlock::encode(list) +
                             "filelistend 2\nfilesync\nping held\n"));
    EXPECT_EQ(nextLine(*server), QByteArray("pong held"));
    held.release();
    build.join();

    // Then only what differs is asked for, against the list that build made.
    EXPECT_EQ(nextLine(*server), QByteArray("sendfileinfo \"/new\""));
    EXPECT_EQ(nextLine(*server), QByteArray("sendfilesync"));
    ASSERT_TRUE(server->send("fileinfo 3 \"/new\" 1 " + AbcMd5 + "\n"));
    EXPECT_EQ(nextLine(*server), QByteArray("sendparts \"/new\""));
    ASSERT_TRUE(server->send("filepart \"/new\" 3 1\nabcfilesync\n"));
    ASSERT_TRUE(pull->waitFinished(10000));
    const auto result = pull->result();
    EXPECT_TRUE(result.success) << result.error.toStdString();
    EXPECT_EQ(result.filesChecked, 2);
    EXPECT_EQ(result.filesTransferred, 1);
    EXPECT_EQ(readFile(folder + "/new"), QByteArray("abc"));
    EXPECT_EQ(asset.index().checksumsComputed(), 1); // "/same", by the held build only
    pull->shutdown();
}

} // namespace
