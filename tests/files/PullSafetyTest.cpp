// What a pull may do to its folder: replace a file in one step, leave symbolic links
// alone, take only the files it asked for, and hold a bounded number of them open.
#include "files/FilesTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/transport/MapBlock.h"

#include <QCryptographicHash>

#include <sys/inotify.h>
#include <unistd.h>

namespace {

using namespace FilesTest;

// The names of the files of `dir` that were deleted or moved in, read from an inotify
// descriptor without waiting.
QStringList inotifyEvents(int fd, uint32_t mask) {
    QStringList names;
    char buffer[64 << 10];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        for (char* at = buffer; at < buffer + n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            if ((event->mask & mask) != 0 && event->len > 0)
                names.append(QString::fromUtf8(event->name));
            at += sizeof(inotify_event) + event->len;
        }
    return names;
}

TEST(PullSafety, AChangedFileIsReplacedInOneStep) {
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(writeFile(source.filePath("data.bin"), patternBytes(100000, 1)));
    ASSERT_TRUE(writeFile(target.filePath("data.bin"), patternBytes(100000, 2)));
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(::inotify_add_watch(watch, QFile::encodeName(target.path()).constData(),
                                  IN_DELETE | IN_MOVED_TO),
              0);
    ServedFolder served(source.path());
    const auto result = pull(target.path(), served.port(), false);
    EXPECT_TRUE(result.success) << result.error.toStdString();
    EXPECT_EQ(readFile(target.filePath("data.bin")), patternBytes(100000, 1));
    // Killed at any moment, the pull leaves the old file or the new one, never none.
    EXPECT_FALSE(inotifyEvents(watch, IN_DELETE).contains("data.bin"));
    ::close(watch);
}

TEST(PullSafety, LinksInThePulledFolderAreNeitherFollowedNorRemoved) {
    QTemporaryDir source;
    QTemporaryDir target;
    QTemporaryDir outside;
    ASSERT_TRUE(writeFile(source.filePath("real/x.txt"), "x"));
    ASSERT_TRUE(writeFile(source.filePath("out/y.txt"), "server's y"));
    ASSERT_TRUE(writeFile(target.filePath("real/x.txt"), "x"));
    ASSERT_TRUE(writeFile(outside.filePath("y.txt"), "someone else's y"));
    // Views of a folder inside, which the walk might reach first, and one outside.
    for (const char* view : {"a", "b", "c", "v", "w"})
        ASSERT_TRUE(QFile::link(target.filePath("real"), target.filePath(view)));
    ASSERT_TRUE(QFile::link(outside.path(), target.filePath("out")));

    ServedFolder served(source.path());
    const auto result = pull(target.path(), served.port(), true);
    // Nothing was removed or fetched through a view; the file behind "out" stays, and
    // the server's out/y.txt fails instead of being written there.
    EXPECT_EQ(readFile(target.filePath("real/x.txt")), QByteArray("x"));
    EXPECT_EQ(result.filesDeleted, 0);
    EXPECT_EQ(result.filesTransferred, 0);
    EXPECT_EQ(result.failed, QStringList{"/out/y.txt"});
    EXPECT_EQ(readFile(outside.filePath("y.txt")), QByteArray("someone else's y"));
    EXPECT_TRUE(QFileInfo(target.filePath("v")).isSymLink());
}

TEST(PullSafety, OnlyWhatWasAskedForIsTakenAndFewDownloadsRunAtOnce) {
    constexpr int Files = 100;
    const QByteArray content = patternBytes(65537, 3); // two parts
    const QByteArray md5 = QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex();
    QTemporaryDir target;
    TransportTest::RawListener listener;
    Dovel::AssetBase asset(target.path());
    auto puller = Dovel::FolderPullConnection::create(asset, false);
    puller->start(QStringLiteral("127.0.0.1"), listener.port());
    auto server = listener.accept();
    ASSERT_TRUE(server && TransportTest::serveLogin(*server, "Heliotrope 2.6.1", true));
    QMap<QString, QString> list;
    for (int i = 0; i < Files; ++i)
        list.insert(QStringLiteral("/f%1").arg(i, 3, 10, QLatin1Char('0')),
                    "65537 " + QString::fromLatin1(md5));
    server->send("filelist 100\n" + Dovel::MapBlock::encode(list) + "filelistend 100\n");
    QStringList asked;
    for (QByteArray line = nextLine(*server); line != "sendfilesync"; line = nextLine(*server)) {
        ASSERT_TRUE(line.startsWith("sendfileinfo ")) << line.constData();
        asked.append(QString::fromUtf8(line.mid(14).chopped(1)));
    }
    ASSERT_EQ(asked.size(), Files);
    QByteArray described;
    for (const QString& name : asked + QStringList{"/planted"})
        described += "fileinfo 65537 \"" + name.toUtf8() + "\" 2 " + md5 + "\n";
    server->send(described + "filesync\n");

    auto askedForParts = [&] {
        QStringList names;
        for (QByteArray line = nextLine(*server, 500); !line.isNull();
             line = nextLine(*server, 500))
            if (line.startsWith("sendparts "))
                names.append(QString::fromUtf8(line.mid(11).chopped(1)));
        return names;
    };
    const QStringList first = askedForParts();
    ASSERT_EQ(first.size(), Dovel::Limits::MaxDownloadsPerConnection);
    // A part nobody asked for fails its download and opens no file.
    server->send("filepart \"" + asked.last().toUtf8() + "\" 1 1\nx");
    // One download ends: the next one is asked for.
    const QByteArray name = first.first().toUtf8();
    server->send("filepart \"" + name + "\" 65536 1\n" + content.left(65536) + "filepart \"" +
                 name + "\" 1 2\n" + content.right(1));
    EXPECT_EQ(askedForParts().size(), 1);
    EXPECT_EQ(readFile(target.path() + first.first()), content);
    EXPECT_FALSE(QFile::exists(target.filePath("planted")));
    EXPECT_TRUE(tempFiles(target.path()).size() <= 1);
    puller->shutdown();
}

TEST(PullSafety, AFileWhosePartsStopComingFailsAfterOneMoreTry) {
    // The server's file shrank while it was sent: its last parts never come.
    const QByteArray content = patternBytes(200000, 4);
    const QByteArray md5 = QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex();
    QTemporaryDir target;
    TransportTest::RawListener listener;
    Dovel::AssetBase asset(target.path());
    auto puller = Dovel::FolderPullConnection::create(asset, false);
    puller->connection().setTimeoutSeconds(0.5);
    puller->start(QStringLiteral("127.0.0.1"), listener.port());
    auto server = listener.accept();
    ASSERT_TRUE(server && TransportTest::serveLogin(*server, "Heliotrope 2.6.1", true));
    server->send("filelist 1\n" +
                 Dovel::MapBlock::encode({{"/t.bin", "200000 " + QString::fromLatin1(md5)}}) +
                 "filelistend 1\n");
    int asked = 0;
    for (QByteArray line = nextLine(*server, 2000); !line.isNull();
         line = nextLine(*server, 2000)) {
        if (line == "sendfileinfo \"/t.bin\"") {
            ++asked;
            server->send("fileinfo 200000 \"/t.bin\" 4 " + md5 + "\nfilesync\n");
        } else if (line == "sendparts \"/t.bin\"") {
            server->send("filepart \"/t.bin\" 65536 1\n" + content.left(65536));
        }
        if (puller->waitFinished(0))
            break;
    }
    ASSERT_TRUE(puller->waitFinished(10000));
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(puller->result().failed, QStringList{"/t.bin"});
    EXPECT_FALSE(QFile::exists(target.filePath("t.bin")));
    EXPECT_TRUE(tempFiles(target.path()).isEmpty());
    puller->shutdown();
}

} // namespace
