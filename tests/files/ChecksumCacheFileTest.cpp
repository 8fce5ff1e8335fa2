// The checksum cache read and written line by line in the settings file must agree with
// QSettings both ways, leave other folders' arrays alone, and hand anything it cannot
// write plainly back to QSettings without losing entries.
#include "Dovel/files/ChecksumCacheFile.h"

#include "FilesTestUtil.h"

#include <QSettings>

namespace {

using Dovel::ChecksumCacheFile;

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

// A list as comparable text: name, size, checksum and time of each entry.
QStringList entries(const Dovel::FileList& list) {
    QStringList lines;
    for (auto it = list.constBegin(); it != list.constEnd(); ++it)
        lines.append(QStringLiteral("%1 %2 %3 %4")
                         .arg(it.key())
                         .arg(it->size)
                         .arg(it->md5)
                         .arg(it->lastModified.toMSecsSinceEpoch()));
    return lines;
}

// The array as QSettings reads it, as comparable text.
QStringList readWithQSettings(const QString& array) {
    QSettings settings(QStringLiteral("Brevant"), QStringLiteral("Cache"));
    QStringList lines;
    const int count = settings.beginReadArray(array);
    for (int i = 0; i < count; ++i) {
        settings.setArrayIndex(i);
        lines.append(QStringList{settings.value("file").toString(),
                                 settings.value("size").toString(),
                                 settings.value("MD5").toString(), settings.value("ts").toString()}
                         .join(' '));
    }
    settings.endArray();
    lines.sort();
    return lines;
}

TEST(ChecksumCacheFile, AgreesWithQSettingsAndKeepsOtherArrays) {
    const QString file = ChecksumCacheFile::settingsFile();
    EXPECT_EQ(file, QSettings(QStringLiteral("Brevant"), QStringLiteral("Cache")).fileName());

    const QString mine = QStringLiteral("FileList//tmp/cache-test/a.b_c-d");
    const QString other = QStringLiteral("FileList//tmp/cache-test/other folder");
    const Dovel::FileList odd{{QStringLiteral("/with, comma"), info(1, 'a', 1000)},
                              {QStringLiteral("/sp ace/\u00e9t\u00e9"), info(2, 'b', 2000)}};
    writeWithQSettings(other, odd);

    // Written line by line, read back by QSettings and by the reader alike.
    Dovel::FileList list;
    for (int i = 0; i < 25; ++i)
        list.insert(QStringLiteral("/d%1/f%2.bin").arg(i % 3).arg(i),
                    info(100 + i, "0123456789abcdef"[i % 16], 1795435539938 + i));
    ASSERT_TRUE(ChecksumCacheFile::write(file, mine, list));
    EXPECT_EQ(readWithQSettings(mine), entries(list));
    Dovel::FileList read;
    int count = -1;
    ASSERT_TRUE(ChecksumCacheFile::read(file, mine, read, count));
    EXPECT_EQ(count, 25);
    EXPECT_EQ(entries(read), entries(list));
    // The other folder's array is untouched.
    EXPECT_EQ(readWithQSettings(other), entries(odd));

    // A shorter array written by QSettings over ours is read as QSettings reads it.
    list.remove(list.firstKey());
    writeWithQSettings(mine, list);
    read.clear();
    ASSERT_TRUE(ChecksumCacheFile::read(file, mine, read, count));
    EXPECT_EQ(count, 24);
    EXPECT_EQ(entries(read), entries(list));

    // Values that QSettings escapes or quotes are left to it, both ways.
    EXPECT_FALSE(ChecksumCacheFile::read(file, other, read, count));
    EXPECT_FALSE(ChecksumCacheFile::write(file, mine, odd));
    EXPECT_EQ(readWithQSettings(mine), entries(list));
}

} // namespace
