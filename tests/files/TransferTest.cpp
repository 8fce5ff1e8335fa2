// Whole transfers over loopback between a FolderServer and FolderPulls on real folders:
// part boundaries, nested folders, names that cannot be carried, what a killed pull
// leaves behind, repeated pulls that follow exactly the changes, and the checksum cache.
#include "files/FilesTestUtil.h"

#include <sys/inotify.h>
#include <unistd.h>

namespace {

using namespace FilesTest;

// The names in `dir` that were deleted, read from an inotify descriptor without waiting.
QStringList deletedNames(int fd) {
    QStringList names;
    alignas(inotify_event) char buffer[64 << 10];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        for (char* at = buffer; at < buffer + n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            if ((event->mask & IN_DELETE) != 0 && event->len > 0)
                names.append(QString::fromUtf8(event->name));
            at += sizeof(inotify_event) + event->len;
        }
    return names;
}

TEST(FileTransfer, AFolderIsMirroredThenExactlyItsChangesFollow) {
    QTemporaryDir source;
    QTemporaryDir target;
    ASSERT_TRUE(source.isValid() && target.isValid());
    const QList<int> sizes{0, 1, 65535, 65536, 65537, 4 << 20};
    for (int size : sizes)
        ASSERT_TRUE(writeFile(source.path() + QStringLiteral("/sizes/f%1.bin").arg(size),
                              patternBytes(size, size)));
    for (int i = 0; i < 200; ++i) {
        const QString name = QStringLiteral("/d%1/e%2/file%3.dat").arg(i % 10).arg(i % 7).arg(i);
        ASSERT_TRUE(writeFile(source.path() + name, patternBytes(100 + i % 300, i)));
    }
    ASSERT_TRUE(writeFile(source.path() + "/solo/only.txt", "alone"));
    ASSERT_TRUE(writeFile(source.path() + "/data.bin", patternBytes(100000, 1)));
    const int files = sizes.size() + 202;
    // Names the protocol cannot carry, and a download of the server's own, stay behind.
    const QStringList uncarried{"/back\\slash", "/odd:name.txt", "/two..dots"};
    for (const QString& name : uncarried + QStringList{"/left.filesync.part"})
        ASSERT_TRUE(writeFile(source.path() + name, "stays behind"));
    auto mirrored = [&] {
        auto expected = snapshot(source.path());
        for (const QString& name : uncarried + QStringList{"/left.filesync.part"})
            expected.remove(name);
        return expected;
    };

    // What a pull killed in the middle leaves: its lock file, no longer held, a part of a
    // download, and one of a file the server no longer has.
    ASSERT_TRUE(writeFile(target.path() + "/.filesync.lock", ""));
    ASSERT_TRUE(writeFile(target.path() + "/sizes/f4194304.bin.filesync.part",
                          patternBytes(4 << 20, 4 << 20).left(100000)));
    ASSERT_TRUE(writeFile(target.path() + "/d1/gone.bin.filesync.part", "stale"));

    ServedFolder served(source.path());
    const auto first = pull(target.path(), served.port(), false);
    // The mirror is not complete, and the pull says which files it could not bring.
    EXPECT_FALSE(first.success);
    QStringList left = first.uncarried;
    left.sort();
    EXPECT_EQ(left, uncarried);
    EXPECT_TRUE(first.error.isEmpty() && first.failed.isEmpty()) << first.error.toStdString();
    EXPECT_EQ(first.filesChecked, files);
    EXPECT_EQ(first.filesTransferred, files);
    // The snapshot holds hidden and temporary files too: equality means none is left.
    EXPECT_EQ(snapshot(target.path()), mirrored());

    // A file that only the target has stays without --delete and goes with it.
    ASSERT_TRUE(writeFile(target.path() + "/d1/stray.txt", "stray"));
    EXPECT_TRUE(pull(target.path(), served.port(), false).failed.isEmpty());
    EXPECT_TRUE(QFile::exists(target.path() + "/d1/stray.txt"));

    // One changed (a new size, so that the change shows whatever the clock), one added,
    // one deleted, the last one alone in its folder.
    const int64_t computedBefore = served.get().asset().index().checksumsComputed();
    ASSERT_TRUE(writeFile(source.path() + "/data.bin", patternBytes(100001, 2)));
    ASSERT_TRUE(writeFile(source.path() + "/new/added.txt", "added"));
    ASSERT_TRUE(QFile::remove(source.path() + "/solo/only.txt"));
    ASSERT_TRUE(QDir(source.path()).rmdir("solo"));
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(::inotify_add_watch(watch, QFile::encodeName(target.path()).constData(), IN_DELETE),
              0);

    const auto second = pull(target.path(), served.port(), true);
    EXPECT_TRUE(second.failed.isEmpty()) << second.failed.join(' ').toStdString();
    EXPECT_EQ(second.filesChecked, files);
    EXPECT_EQ(second.filesTransferred, 2);
    EXPECT_EQ(second.filesDeleted, 2); // the stray file and the deleted one
    EXPECT_EQ(snapshot(target.path()), mirrored());
    EXPECT_FALSE(QFileInfo::exists(target.path() + "/solo")); // emptied, so removed
    EXPECT_TRUE(QFileInfo::exists(target.path() + "/d1"));
    // Killed at any moment, the pull leaves the old file or the new one, never none.
    EXPECT_FALSE(deletedNames(watch).contains("data.bin"));
    ::close(watch);
    // The server reread only the changed and the added file.
    EXPECT_EQ(served.get().asset().index().checksumsComputed() - computedBefore, 2);
}

TEST(FileTransfer, ChecksumCacheSurvivesTheAssetAndNoticesChanges) {
    QTemporaryDir parent;
    ASSERT_TRUE(parent.isValid());
    // A root that the settings file escapes, and names that it quotes or escapes.
    const QString root = parent.path() + QStringLiteral("/r\u00f6\u00f6t 50%");
    const QStringList names{QStringLiteral("/plain.bin"),         QStringLiteral("/a, b"),
                            QStringLiteral("/\u00e9t\u00e9/x y"), QStringLiteral("/@at"),
                            QStringLiteral("/resized"),           QStringLiteral("/touched")};
    for (int i = 0; i < names.size(); ++i)
        ASSERT_TRUE(writeFile(root + names[i], patternBytes(40 + i, i)));
    Dovel::FileList first;
    {
        Dovel::AssetBase asset(root);
        first = asset.buildFileList();
        EXPECT_EQ(asset.index().checksumsComputed(), names.size());
        EXPECT_EQ(first.value("/plain.bin").md5, QString(md5Of(patternBytes(40, 0))));
    }
    // A new size, or a new modification time alone, is a change; the rest is reused.
    ASSERT_TRUE(writeFile(root + "/resized", patternBytes(99, 4)));
    QFile touched(root + "/touched");
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    ASSERT_TRUE(touched.setFileTime(QDateTime::currentDateTime().addSecs(-3600),
                                    QFileDevice::FileModificationTime));
    touched.close();
    Dovel::AssetBase again(root);
    const auto list = again.buildFileList();
    EXPECT_EQ(again.index().checksumsComputed(), 2);
    EXPECT_EQ(again.index().checksumsReused(), names.size() - 2);
    EXPECT_EQ(list.keys(), first.keys());
    EXPECT_EQ(list.value("/plain.bin").md5, first.value("/plain.bin").md5);
    EXPECT_EQ(list.value("/resized").size, 99);
}

} // namespace
