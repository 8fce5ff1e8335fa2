// What a pull may do to its folder: leave symbolic links alone, take only the files it
// asked for, hold a bounded number of them open, and refuse what a server may not send.
#include "files/FilesTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/files/FolderPullHandler.h"
#include "Dovel/transport/MapBlock.h"

#include "transport/FakeLink.h"

namespace {

using namespace FilesTest;

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

// A pull's protocol over a fake link, logged in, its owner's reports kept.
struct FakePull : Dovel::FolderPullHandler::Owner {
    QTemporaryDir target;
    Dovel::AssetBase asset{target.path()};
    TransportTest::FakeLink link;
    Dovel::FolderPullHandler handler{link, asset, false, *this};
    Dovel::FolderPull::Result result;

    FakePull() { hooks().connected(); }
    ~FakePull() override { hooks().disconnected(); }
    Dovel::ConnectionHandler& hooks() { return handler; }
    void pullProgress(const Dovel::FolderPull::Progress&) override {}
    void pullFinished(const Dovel::FolderPull::Result& finished) override { result = finished; }
    QByteArray answer(const QByteArray& bytes) {
        link.feed(bytes);
        link.pump(handler);
        return link.takeWritten();
    }
};

TEST(PullSafety, OnlyWhatWasAskedForIsTakenFewDownloadsRunAtOnceAndLinesOutOfPlaceEndIt) {
    const QByteArray content = patternBytes(65537, 3); // two parts
    const QByteArray md5 = md5Of(content);
    FakePull pull;
    QMap<QString, QString> list;
    QByteArray asked, described, first;
    for (int i = 0; i < 100; ++i) {
        const QByteArray name = "/f" + QByteArray::number(i).rightJustified(3, '0');
        list.insert(QString::fromLatin1(name), "65537 " + QString::fromLatin1(md5));
        asked += "sendfileinfo \"" + name + "\"\n";
        described += "fileinfo 65537 \"" + name + "\" 2 " + md5 + "\n";
        if (i < Dovel::Limits::MaxDownloadsPerConnection)
            first += "sendparts \"" + name + "\"\n";
    }
    // Nothing is asked for before the local list is in.
    EXPECT_EQ(pull.answer("filelist 100\n" + Dovel::MapBlock::encode(list) + "filelistend 100\n"),
              QByteArray());
    pull.handler.localListReady({});
    EXPECT_EQ(pull.link.takeWritten(), asked + "sendfilesync\n");
    // A description of a file not asked for is ignored; a part nobody asked for fails its
    // download and opens no file.
    EXPECT_EQ(pull.answer(described + "fileinfo 65537 \"/planted\" 2 " + md5 + "\nfilesync\n"),
              first);
    EXPECT_EQ(pull.answer("filepart \"/f099\" 1 1\nx"), QByteArray());
    // One download ends: the next one is asked for.
    EXPECT_EQ(pull.answer("filepart \"/f000\" 65536 1\n" + content.left(65536) +
                          "filepart \"/f000\" 1 2\n" + content.right(1)),
              "sendparts \"/f064\"\n");
    ASSERT_TRUE(waitUntil([&] {
        if (pull.hooks().wantsIdle())
            pull.hooks().idle();
        return QFile::exists(pull.target.filePath("f000"));
    }));
    EXPECT_EQ(readFile(pull.target.filePath("f000")), content);
    EXPECT_FALSE(QFile::exists(pull.target.filePath("planted")));
    EXPECT_TRUE(tempFiles(pull.target.path()).isEmpty());

    // What a pull does not take from a server: lines out of place end it, and so do sizes
    // over the limits that guard what it holds; unknown lines are refused, and a
    // "filesync" that answers nothing is ignored.
    struct Hostile {
        QByteArray input;
        bool ends;
        QString error;
    };
    const QByteArray overPart = QByteArray::number(Dovel::Limits::MaxFilePartBytes + 1);
    const std::vector<Hostile> hostile{
        {"sendparts \"/f000\"\n", true, "the server asked for our files, which a pull never sends"},
        {"filelist " + QByteArray::number(Dovel::Limits::MaxFileListEntries + 1) + "\n", true,
         "the server's file list is too long or out of place"},
        {"filelist 2\n" + Dovel::MapBlock::encode({{"/a", "1 " + md5}}), true,
         "the server's file list could not be read"},
        {"filepart \"/a\" " + overPart + " 1\n" + QByteArray(70000, 'x'), true, QString()},
        {"filepart \"/a\" 99999999999999999999 1\n", true, QString()},
        {"filelist -1\n", false, QString()},
        {"filesync\nmystery\n", false, QString()}};
    for (const Hostile& row : hostile) {
        SCOPED_TRACE(row.input.left(40).constData());
        FakePull fed;
        EXPECT_EQ(fed.answer(row.input), QByteArray());
        EXPECT_EQ(fed.link.ended, row.ends);
        EXPECT_EQ(fed.result.error, row.error);
        EXPECT_EQ(fed.result.finished, !row.error.isEmpty());
        EXPECT_EQ(fed.link.refused.isEmpty(), row.ends);
    }

    // A connection that ends after the server said nothing, not even a ping, for the
    // time-out and a ping interval (the writer ends it then) says so.
    for (const bool silent : {false, true}) {
        FakePull fed;
        fed.link.setTimeoutSeconds(1.0);
        fed.link.quietSeconds = silent ? 6.5 : 5.5;
        fed.hooks().attemptEnded();
        EXPECT_EQ(fed.result.error,
                  silent ? QString("fake:1 sent nothing for 6 s")
                         : QString("the connection ended before the folder was up to date"));
    }
}

TEST(PullSafety, AFileWhosePartsStopComingFailsAfterOneMoreTry) {
    // The server's file shrank while it was sent: its last parts never come.
    const QByteArray content = patternBytes(200000, 4);
    const QByteArray md5 = md5Of(content);
    FakePull pull;
    pull.link.setTimeoutSeconds(0.5);
    pull.answer("filelist 1\n" +
                Dovel::MapBlock::encode({{"/t.bin", "200000 " + QString::fromLatin1(md5)}}) +
                "filelistend 1\n");
    pull.handler.localListReady({});
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(pull.link.takeWritten(), "sendfileinfo \"/t.bin\"\nsendfilesync\n");
        EXPECT_EQ(pull.answer("fileinfo 200000 \"/t.bin\" 4 " + md5 + "\nfilesync\n" +
                              "filepart \"/t.bin\" 65536 1\n" + content.left(65536)),
                  "sendparts \"/t.bin\"\n");
        ASSERT_TRUE(waitUntil([&] {
            pull.hooks().idle(); // the download's parts time out while the peer is quiet
            return !pull.asset.downloads().isDownloading("/t.bin");
        }));
    }
    EXPECT_EQ(pull.link.takeWritten(), QByteArray());
    EXPECT_EQ(pull.result.failed, QStringList{"/t.bin"});
    EXPECT_FALSE(QFile::exists(pull.target.filePath("t.bin")));
    EXPECT_TRUE(tempFiles(pull.target.path()).isEmpty());
}

TEST(PullSafety, EachDamagedFileIsAskedForAgainAndJudgedByItsOwnSync) {
    const QByteArray md5 = md5Of("abcd");
    FakePull pull;
    const QString sizeAndMd5 = "4 " + QString::fromLatin1(md5);
    pull.answer("filelist 2\n" + Dovel::MapBlock::encode({{"/a", sizeAndMd5}, {"/b", sizeAndMd5}}) +
                "filelistend 2\n");
    pull.handler.localListReady({});
    EXPECT_EQ(pull.link.takeWritten(), "sendfileinfo \"/a\"\nsendfileinfo \"/b\"\nsendfilesync\n");
    // Both described with a checksum their bytes do not have: both arrive damaged.
    const QByteArray wrong = md5Of("dcba");
    EXPECT_EQ(pull.answer("fileinfo 4 \"/a\" 1 " + wrong + "\nfileinfo 4 \"/b\" 1 " + wrong +
                          "\nfilesync\n"),
              "sendparts \"/a\"\nsendparts \"/b\"\n");
    // Each is asked for again, with a sync of its own; the server answers in order, and
    // the first sync does not count against the second file.
    QByteArray asked = pull.answer("filepart \"/a\" 4 1\nabcdfilepart \"/b\" 4 1\nabcd");
    ASSERT_TRUE(waitUntil([&] {
        if (pull.hooks().wantsIdle())
            pull.hooks().idle();
        asked += pull.link.takeWritten();
        return asked.count("sendfilesync") == 2;
    })) << asked.constData();
    const QByteArray first = asked.startsWith("sendfileinfo \"/a\"") ? "/a" : "/b";
    const QByteArray second = first == "/a" ? "/b" : "/a";
    EXPECT_EQ(asked, "sendfileinfo \"" + first + "\"\nsendfilesync\nsendfileinfo \"" + second +
                         "\"\nsendfilesync\n");
    EXPECT_EQ(pull.answer("fileinfo 4 \"" + first + "\" 1 " + md5 + "\nfilesync\nfileinfo 4 \"" +
                          second + "\" 1 " + md5 + "\nfilesync\n"),
              "sendparts \"" + first + "\"\nsendparts \"" + second + "\"\n");
    pull.answer("filepart \"/a\" 4 1\nabcdfilepart \"/b\" 4 1\nabcd");
    ASSERT_TRUE(waitUntil([&] {
        if (pull.hooks().wantsIdle())
            pull.hooks().idle();
        return pull.result.finished;
    }));
    EXPECT_EQ(pull.result.error, QString());
    EXPECT_EQ(pull.result.failed, QStringList());
    EXPECT_EQ(readFile(pull.target.filePath("a")), QByteArray("abcd"));
    EXPECT_EQ(readFile(pull.target.filePath("b")), QByteArray("abcd"));
}

TEST(PullSafety, PartsThatComeToAnotherSizeThanAnnouncedLeaveTheOldCopy) {
    // Four bytes announced, in the one part that four bytes take; the part and the
    // checksum are those of what comes.
    for (const QByteArray& sent : {QByteArray("abcdefgh"), QByteArray("ab")}) {
        SCOPED_TRACE(sent.constData());
        FakePull pull;
        ASSERT_TRUE(writeFile(pull.target.filePath("f"), "old"));
        const QByteArray md5 = md5Of(sent);
        pull.answer("filelist 1\n" +
                    Dovel::MapBlock::encode({{"/f", "4 " + QString::fromLatin1(md5)}}) +
                    "filelistend 1\n");
        pull.handler.localListReady(pull.asset.buildFileList(nullptr));
        EXPECT_EQ(pull.link.takeWritten(), "sendfileinfo \"/f\"\nsendfilesync\n");
        EXPECT_EQ(pull.answer("fileinfo 4 \"/f\" 1 " + md5 + "\nfilesync\n"), "sendparts \"/f\"\n");
        // Failed, and asked for once more.
        EXPECT_EQ(pull.answer("filepart \"/f\" " + QByteArray::number(sent.size()) + " 1\n" + sent),
                  "sendfileinfo \"/f\"\nsendfilesync\n");
        EXPECT_EQ(readFile(pull.target.filePath("f")), QByteArray("old"));
        EXPECT_TRUE(tempFiles(pull.target.path()).isEmpty());
    }
}

} // namespace
