// Whole transfers over loopback between a FolderServer and FolderPulls on
// real folders: part boundaries, a file of several MiB, nested folders, repeated pulls
// and the checksum cache.
#include "files/FilesTestUtil.h"

#include "Dovel/files/FileListThread.h"
#include "Dovel/files/ProgressSender.h"

#include "Basalt/Trace.h"

namespace {

using namespace FilesTest;

TEST(FileTransfer, FilesOfEverySizeArriveByteIdentical) {
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    const QList<int> sizes{0, 1, 65535, 65536, 65537, 4 << 20};
    for (int size : sizes)
        ASSERT_TRUE(writeFile(source.path() + QStringLiteral("/sizes/f%1.bin").arg(size),
                              patternBytes(size, size)));
    ASSERT_TRUE(writeFile(source.path() + "/deep/er/still/leaf.txt", "leaf"));

    ServedFolder served(source.path());
    ASSERT_TRUE(served.isListening());
    const auto first = pull(target.path(), served.port(), false);
    EXPECT_TRUE(first.success) << first.error.toStdString() << first.failed.join(' ').toStdString();
    EXPECT_EQ(first.filesChecked, sizes.size() + 1);
    EXPECT_EQ(first.filesTransferred, sizes.size() + 1);
    int64_t total = 4;
    for (int size : sizes)
        total += size;
    EXPECT_EQ(first.bytesTransferred, total);
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));
    EXPECT_TRUE(tempFiles(target.path()).isEmpty());

    // Nothing changed: the second pull checks everything and moves nothing.
    const auto second = pull(target.path(), served.port(), true);
    EXPECT_TRUE(second.success);
    EXPECT_EQ(second.filesChecked, sizes.size() + 1);
    EXPECT_EQ(second.filesTransferred, 0);
    EXPECT_EQ(second.filesDeleted, 0);
    EXPECT_EQ(second.bytesTransferred, 0);
}

TEST(FileTransfer, ThousandFilesMirroredThenExactlyTheChangesFollow) {
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    for (int i = 0; i < 1000; ++i) {
        const QString name = QStringLiteral("/d%1/e%2/file%3.dat").arg(i % 10).arg(i % 7).arg(i);
        ASSERT_TRUE(writeFile(source.path() + name, patternBytes(100 + i % 300, i)));
    }
    ASSERT_TRUE(writeFile(source.path() + "/solo/only.txt", "alone"));

    ServedFolder served(source.path());
    ASSERT_TRUE(served.isListening());
    const auto first = pull(target.path(), served.port(), true);
    EXPECT_TRUE(first.success) << first.error.toStdString();
    EXPECT_EQ(first.filesTransferred, 1001);
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));

    // A file that only the target has stays without --delete and goes with it.
    ASSERT_TRUE(writeFile(target.path() + "/d1/stray.txt", "stray"));
    const auto keep = pull(target.path(), served.port(), false);
    EXPECT_TRUE(keep.success);
    EXPECT_TRUE(QFile::exists(target.path() + "/d1/stray.txt"));

    // One changed (a new size, so that the change shows whatever the clock), one added,
    // one deleted, the last one alone in its folder.
    const int64_t computedBefore = served.get().asset().index().checksumsComputed();
    ASSERT_TRUE(writeFile(source.path() + "/d3/e3/file3.dat", "changed"));
    ASSERT_TRUE(writeFile(source.path() + "/new/added.txt", "added"));
    ASSERT_TRUE(QFile::remove(source.path() + "/solo/only.txt"));
    ASSERT_TRUE(QDir(source.path()).rmdir("solo"));

    const auto second = pull(target.path(), served.port(), true);
    EXPECT_TRUE(second.success) << second.failed.join(' ').toStdString();
    EXPECT_EQ(second.filesChecked, 1001);
    EXPECT_EQ(second.filesTransferred, 2);
    EXPECT_EQ(second.filesDeleted, 2); // the stray file and the deleted one
    EXPECT_EQ(snapshot(target.path()), snapshot(source.path()));
    EXPECT_FALSE(QFileInfo::exists(target.path() + "/solo")); // emptied, so removed
    EXPECT_TRUE(QFileInfo::exists(target.path() + "/d1"));
    // The server reread only the changed and the added file.
    EXPECT_EQ(served.get().asset().index().checksumsComputed() - computedBefore, 2);
}

class RecordingProgress : public Dovel::ProgressSender {
public:
    void transferInfo(const QString& text) override {
        Basalt::Guard guard(mutex);
        texts.append(text);
    }
    QStringList all() const {
        Basalt::Guard guard(mutex);
        return TransportTest::copyOf(texts);
    }

private:
    mutable Basalt::Mutex mutex;
    QStringList texts;
};

TEST(FileTransfer, ChecksumCacheSurvivesTheAssetAndNoticesChanges) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(
            writeFile(folder.path() + QStringLiteral("/c/f%1").arg(i), patternBytes(50, i)));
    QString firstSum;
    {
        // The first list is built on a FileListThread, reporting as it goes.
        Dovel::AssetBase asset(folder.path());
        RecordingProgress texts;
        Dovel::FileListThread thread(asset.index(), &texts);
        thread.run();
        ASSERT_TRUE(thread.waitEnd(10000));
        const auto list = thread.result();
        EXPECT_EQ(texts.all(), (QStringList{"Scanning directory tree...", "Generated checksums: 20",
                                            "Checksum list generated"}));
        EXPECT_EQ(list.size(), 20);
        EXPECT_EQ(asset.index().checksumsComputed(), 20);
        firstSum = list.value("/c/f0").md5;
        EXPECT_EQ(
            firstSum,
            QString(
                QCryptographicHash::hash(patternBytes(50, 0), QCryptographicHash::Md5).toHex()));
    }
    // A new asset of the same folder reads the cache: nothing is reread...
    ASSERT_TRUE(writeFile(folder.path() + "/c/f1", patternBytes(51, 1)));
    Basalt::TraceCapture capture;
    Dovel::AssetBase again(folder.path());
    const auto list = again.buildFileList();
    // ...except the file whose size changed.
    EXPECT_EQ(again.index().checksumsComputed(), 1);
    EXPECT_EQ(again.index().checksumsReused(), 19);
    EXPECT_TRUE(capture.contains("19 checksums reused, 1 computed"))
        << capture.dump().toStdString();
    EXPECT_EQ(list.value("/c/f0").md5, firstSum);
    EXPECT_EQ(list.value("/c/f1").size, 51);

    // A new modification time alone is a change too.
    QFile touched(folder.path() + "/c/f2");
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    ASSERT_TRUE(touched.setFileTime(QDateTime::currentDateTime().addSecs(-3600),
                                    QFileDevice::FileModificationTime));
    touched.close();
    again.buildFileList();
    EXPECT_EQ(again.index().checksumsComputed(), 2);
}

} // namespace

namespace {

TEST(FileTransfer, NamesTheProtocolCannotCarryStayBehindAndThePullSaysSo) {
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    ASSERT_TRUE(writeFile(source.path() + "/plain.txt", "plain"));
    ASSERT_TRUE(writeFile(source.path() + "/odd:name.txt", "colon"));
    ASSERT_TRUE(writeFile(source.path() + "/two..dots", "dots"));
    ASSERT_TRUE(writeFile(source.path() + "/back\\slash", "backslash"));
    ASSERT_TRUE(writeFile(source.path() + "/left.filesync.part", "a download under way"));

    Basalt::TraceCapture capture;
    ServedFolder served(source.path());
    ASSERT_TRUE(served.isListening());
    const auto result = pull(target.path(), served.port(), true);
    // The mirror is not complete, and the pull says which files it could not bring.
    EXPECT_FALSE(result.success);
    QStringList uncarried = result.uncarried;
    uncarried.sort();
    EXPECT_EQ(uncarried, (QStringList{"/back\\slash", "/odd:name.txt", "/two..dots"}));
    EXPECT_EQ(result.filesChecked, 1);
    EXPECT_EQ(snapshot(target.path()).keys(), QStringList{"/plain.txt"});
    EXPECT_TRUE(capture.contains("Skipping '/odd:name.txt'"));
    EXPECT_TRUE(capture.contains("Skipping '/two..dots'"));
    EXPECT_TRUE(capture.contains("Skipping '/back\\slash'"));
    EXPECT_FALSE(capture.contains("left.filesync.part"));
}

} // namespace
