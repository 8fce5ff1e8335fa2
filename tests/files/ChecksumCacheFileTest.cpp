// The checksum cache read and written line by line in the settings file must agree with
// QSettings both ways, leave other folders' arrays alone, and hand anything it cannot
// write plainly back to QSettings without losing entries.
#include "Dovel/files/ChecksumCacheFile.h"
#include "Dovel/files/AssetBase.h"

#include "FilesTestUtil.h"

#include <QSettings>

#include <gtest/gtest.h>

namespace {

using Dovel::AssetBase;
using Dovel::ChecksumCacheFile;
using FilesTest::patternBytes;
using FilesTest::writeFile;

Dovel::FileInfo info(int64_t size, char digit, int64_t msecs) {
    return Dovel::FileInfo{size, QString(32, QLatin1Char(digit)),
                           QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC)};
}

void writeWithQSettings(const QString& array, const Dovel::FileList& list) {
    QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
    settings.remove(array);
    settings.beginWriteArray(array, list.size());
    int i = 0;
    for (auto it = list.constBegin(); it != list.constEnd(); ++it, ++i) {
        settings.setArrayIndex(i);
        settings.setValue(QStringLiteral("file"), it.key());
        settings.setValue(QStringLiteral("ts"), it->lastModified.toMSecsSinceEpoch());
        settings.setValue(QStringLiteral("MD5"), it->md5);
        settings.setValue(QStringLiteral("size"), static_cast<qlonglong>(it->size));
    }
    settings.endArray();
    settings.sync();
}

Dovel::FileList readWithQSettings(const QString& array) {
    QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
    Dovel::FileList list;
    const int count = settings.beginReadArray(array);
    for (int i = 0; i < count; ++i) {
        settings.setArrayIndex(i);
        list.insert(
            settings.value(QStringLiteral("file")).toString(),
            Dovel::FileInfo{settings.value(QStringLiteral("size")).toLongLong(),
                            settings.value(QStringLiteral("MD5")).toString(),
                            QDateTime::fromMSecsSinceEpoch(
                                settings.value(QStringLiteral("ts")).toLongLong(), Qt::UTC)});
    }
    settings.endArray();
    return list;
}

bool sameLists(const Dovel::FileList& a, const Dovel::FileList& b) {
    if (a.keys() != b.keys())
        return false;
    for (auto it = a.constBegin(); it != a.constEnd(); ++it) {
        const Dovel::FileInfo& other = b[it.key()];
        if (it->size != other.size || it->md5 != other.md5 ||
            it->lastModified.toMSecsSinceEpoch() != other.lastModified.toMSecsSinceEpoch())
            return false;
    }
    return true;
}

TEST(ChecksumCacheFile, AgreesWithQSettingsAndKeepsOtherArrays) {
    const QString file = ChecksumCacheFile::settingsFile();
    EXPECT_EQ(file, QSettings(QStringLiteral("Brevant"), QStringLiteral("Cache")).fileName());

    const QString mine = QStringLiteral("FileList//tmp/cache-test/a.b_c-d");
    const QString inside = mine + QStringLiteral("/sub");
    const QString other = QStringLiteral("FileList//tmp/cache-test/other folder");
    const Dovel::FileList odd{{QStringLiteral("/with, comma"), info(1, 'a', 1000)},
                              {QStringLiteral("/sp ace/\u00e9t\u00e9"), info(2, 'b', 2000)}};
    writeWithQSettings(other, odd);
    writeWithQSettings(inside, {{QStringLiteral("/x"), info(3, 'c', 3000)}});

    // Written line by line, read back by QSettings and by the reader alike.
    Dovel::FileList list;
    for (int i = 0; i < 25; ++i)
        list.insert(QStringLiteral("/d%1/f%2.bin").arg(i % 3).arg(i),
                    info(100 + i, "0123456789abcdef"[i % 16], 1795435539938 + i));
    ASSERT_TRUE(ChecksumCacheFile::write(file, mine, list));
    EXPECT_TRUE(sameLists(readWithQSettings(mine), list));
    Dovel::FileList read;
    int count = -1;
    ASSERT_TRUE(ChecksumCacheFile::read(file, mine, read, count));
    EXPECT_EQ(count, 25);
    EXPECT_TRUE(sameLists(read, list));
    // The other folder's array is untouched; the one below ours went, as with remove().
    EXPECT_TRUE(sameLists(readWithQSettings(other), odd));
    EXPECT_TRUE(readWithQSettings(inside).isEmpty());

    // A shorter array written by QSettings over ours is read as QSettings reads it.
    list.remove(list.firstKey());
    writeWithQSettings(mine, list);
    read.clear();
    ASSERT_TRUE(ChecksumCacheFile::read(file, mine, read, count));
    EXPECT_EQ(count, 24);
    EXPECT_TRUE(sameLists(read, list));

    // Values that QSettings escapes or quotes are left to it, both ways.
    EXPECT_FALSE(ChecksumCacheFile::read(file, other, read, count));
    EXPECT_FALSE(ChecksumCacheFile::write(file, mine, odd));
    EXPECT_TRUE(sameLists(readWithQSettings(mine), list));

    // A folder never listed has an empty array.
    read.clear();
    ASSERT_TRUE(ChecksumCacheFile::read(file, QStringLiteral("FileList//nowhere"), read, count));
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(read.isEmpty());
}

TEST(SettingsChecksumCache, OddNamesStillReuseTheirChecksums) {
    QTemporaryDir parent;
    ASSERT_TRUE(parent.isValid());
    // A root that QSettings escapes, and names that it quotes or escapes.
    const QString root = parent.path() + QStringLiteral("/r\u00f6\u00f6t 50%");
    const QStringList names{QStringLiteral("/plain.bin"), QStringLiteral("/a, b"),
                            QStringLiteral("/\u00e9t\u00e9/x y"), QStringLiteral("/@at")};
    for (int i = 0; i < names.size(); ++i)
        ASSERT_TRUE(writeFile(root + names[i], patternBytes(40 + i, i)));
    Dovel::FileList first;
    {
        AssetBase asset(root);
        first = asset.buildFileList();
        EXPECT_EQ(asset.index().checksumsComputed(), names.size());
    }
    AssetBase again(root);
    EXPECT_TRUE(sameLists(again.buildFileList(), first));
    EXPECT_EQ(again.index().checksumsComputed(), 0);
    EXPECT_EQ(again.index().checksumsReused(), names.size());
}

} // namespace
