#include "Dovel/files/ChecksumCacheFile.h"

#include "Dovel/files/PathPolicy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLockFile>
#include <QSaveFile>
#include <QSettings>
#include <QStringList>

#include <cstdint>
#include <cstring>

namespace Dovel {

namespace {

// The key of a settings path as QSettings writes it in an INI file: "/" becomes "\",
// letters, digits, "_", "-" and "." stay, other characters are escaped as %XX or %UXXXX.
QByteArray iniKey(const QString& path) {
    static const char hex[] = "0123456789ABCDEF";
    QByteArray key;
    key.reserve(path.size() + 16);
    for (const QChar c : path) {
        const ushort u = c.unicode();
        if (u == '/') {
            key += '\\';
        } else if ((u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
                   u == '_' || u == '-' || u == '.') {
            key += char(u);
        } else if (u <= 0xff) {
            key += '%';
            key += hex[u >> 4];
            key += hex[u & 15];
        } else {
            key += "%U";
            key += hex[u >> 12];
            key += hex[(u >> 8) & 15];
            key += hex[(u >> 4) & 15];
            key += hex[u & 15];
        }
    }
    return key;
}

// A value that QSettings writes and reads as it is: printable ASCII, none of the
// characters that it escapes, quotes or takes as a list separator or comment, no "@" in
// front and no blank at either end.
bool isPlainValue(const char* begin, const char* end) {
    if (begin == end)
        return true;
    if (*begin == '@' || *begin == ' ' || end[-1] == ' ')
        return false;
    for (const char* p = begin; p != end; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c > 0x7e || c == '\\' || c == '"' || c == ',' || c == ';' || c == '#' ||
            c == '=')
            return false;
    }
    return true;
}

bool isPlainValue(const QByteArray& value) {
    return isPlainValue(value.constBegin(), value.constEnd());
}

// Decimal digits with an optional "-", as QSettings writes numbers (anything else sends
// the whole read to QSettings); parsed in place, since every line of the cache holds a
// number or an index.
bool parseInt64(const char* begin, const char* end, int64_t& out) {
    const bool negative = begin != end && *begin == '-';
    const char* p = negative ? begin + 1 : begin;
    if (p == end || end - p > 19)
        return false;
    uint64_t value = 0;
    for (; p != end; ++p) {
        if (*p < '0' || *p > '9')
            return false;
        value = value * 10 + uint64_t(*p - '0');
    }
    if (value > uint64_t(INT64_MAX) + (negative ? 1 : 0))
        return false;
    out = negative ? int64_t(0 - value) : int64_t(value);
    return true;
}

// Where an array lives in the file: QSettings drops empty components of a key, and the
// first component names the section.
struct ArrayPlace {
    QByteArray section; // "[FileList]"
    QByteArray prefix;  // the escaped rest of the key and a "\", or empty
};

bool placeOf(const QString& arrayName, ArrayPlace& place) {
    QStringList components = arrayName.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (components.isEmpty())
        return false;
    place.section = '[' + iniKey(components.takeFirst()) + ']';
    place.prefix =
        components.isEmpty() ? QByteArray() : iniKey(components.join(QLatin1Char('/'))) + '\\';
    return true;
}

// Calls `line(begin, end, ours)` for every line of `text` (without its "\n"); `ours` is
// true for key lines of the array's section that lie below the array's prefix.
template <typename Line>
void forEachLine(const QByteArray& text, const ArrayPlace& place, Line line) {
    bool inSection = false;
    const char* p = text.constData();
    const char* const end = p + text.size();
    while (p < end) {
        const char* lineEnd = static_cast<const char*>(memchr(p, '\n', size_t(end - p)));
        if (!lineEnd)
            lineEnd = end;
        const char* const begin = p;
        p = lineEnd + 1;
        const size_t length = size_t(lineEnd - begin);
        if (length > 0 && *begin == '[')
            inSection = length == size_t(place.section.size()) &&
                        memcmp(begin, place.section.constData(), length) == 0;
        const bool ours = inSection && length > size_t(place.prefix.size()) && *begin != '[' &&
                          memcmp(begin, place.prefix.constData(), size_t(place.prefix.size())) == 0;
        line(begin, lineEnd, ours);
    }
}

} // namespace

QString ChecksumCacheFile::settingsFile() {
    // Learnt from a settings object of an application that has no file, whose file name
    // differs from the cache's only in the application part; opening the cache's own
    // QSettings would parse the whole file.
    const QSettings probe(QStringLiteral("Brevant"), QStringLiteral("Cache-probe"));
    const QFileInfo file(probe.fileName());
    const QString name = file.fileName();
    return file.absolutePath() + QStringLiteral("/Cache") + name.mid(int(qstrlen("Cache-probe")));
}

bool ChecksumCacheFile::read(const QString& settingsFile, const QString& arrayName, FileList& list,
                             int& count) {
    ArrayPlace place;
    if (!placeOf(arrayName, place) || place.prefix.isEmpty())
        return false;
    count = 0;
    QFile file(settingsFile);
    if (!file.exists())
        return true;
    if (!file.open(QIODevice::ReadOnly))
        return false;
    // Mapped rather than read: the file may hold megabytes of other folders' arrays.
    QByteArray text;
    const qint64 fileSize = file.size();
    if (fileSize > 0 && fileSize < INT32_MAX) {
        if (uchar* mapped = file.map(0, fileSize))
            text = QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), int(fileSize));
    }
    if (text.isNull())
        text = file.readAll();
    if (memchr(text.constData(), '\r', size_t(text.size())))
        return false; // line ends that QSettings takes but this reader does not

    struct Fields {
        QByteArray file;
        QByteArray md5;
        int64_t ts = 0;
        int64_t size = 0;
    };
    QHash<int, Fields> entries;
    int64_t arraySize = -1;
    bool plain = true;
    forEachLine(text, place, [&](const char* begin, const char* end, bool ours) {
        if (!ours || !plain)
            return;
        // "size=<count>" or "<index>\<field>=<value>"; other keys below the prefix belong
        // to arrays of folders inside this one.
        const char* const key = begin + place.prefix.size();
        const char* const equals = static_cast<const char*>(memchr(key, '=', size_t(end - key)));
        if (!equals)
            return;
        const char* const value = equals + 1;
        const QByteArray keyText = QByteArray::fromRawData(key, int(equals - key));
        if (keyText == "size") {
            plain = isPlainValue(value, end) && parseInt64(value, end, arraySize);
            return;
        }
        const int slash = keyText.indexOf('\\');
        int64_t index = 0;
        if (slash <= 0 || !parseInt64(key, key + slash, index) || index < 1 || index > INT32_MAX)
            return;
        const QByteArray field =
            QByteArray::fromRawData(key + slash + 1, keyText.size() - slash - 1);
        if (field != "file" && field != "MD5" && field != "ts" && field != "size")
            return;
        if (!isPlainValue(value, end)) {
            plain = false;
            return;
        }
        Fields& fields = entries[int(index)];
        if (field == "file")
            fields.file = QByteArray(value, int(end - value));
        else if (field == "MD5")
            fields.md5 = QByteArray(value, int(end - value));
        else
            plain = parseInt64(value, end, field == "ts" ? fields.ts : fields.size);
    });
    if (!plain || arraySize > INT32_MAX)
        return false;
    if (arraySize < 0)
        return entries.isEmpty();
    count = int(arraySize);
    for (int i = 1; i <= count; ++i) {
        const auto it = entries.constFind(i);
        if (it == entries.constEnd())
            continue;
        const QString name = QString::fromLatin1(it->file);
        if (PathPolicy::isCarriableName(name) && it->md5.size() == 32)
            // Written in name order: the hint makes each insertion cheap.
            list.insert(list.constEnd(), name,
                        FileInfo{it->size, QString::fromLatin1(it->md5),
                                 QDateTime::fromMSecsSinceEpoch(it->ts, Qt::UTC)});
    }
    return true;
}

bool ChecksumCacheFile::write(const QString& settingsFile, const QString& arrayName,
                              const FileList& list) {
    ArrayPlace place;
    if (!placeOf(arrayName, place) || place.prefix.isEmpty())
        return false;
    QByteArray lines;
    lines.reserve(list.size() * (place.prefix.size() * 4 + 120));
    int index = 0;
    for (auto it = list.constBegin(); it != list.constEnd(); ++it) {
        const QByteArray name = it.key().toUtf8();
        const QByteArray md5 = it->md5.toLatin1();
        if (!isPlainValue(name) || !isPlainValue(md5))
            return false;
        const QByteArray entry = place.prefix + QByteArray::number(++index) + '\\';
        lines += entry + "MD5=" + md5 + '\n';
        lines += entry + "file=" + name + '\n';
        lines += entry + "size=" + QByteArray::number(qlonglong(it->size)) + '\n';
        lines += entry + "ts=" + QByteArray::number(it->lastModified.toMSecsSinceEpoch()) + '\n';
    }
    lines += place.prefix + "size=" + QByteArray::number(index) + '\n';

    QDir().mkpath(QFileInfo(settingsFile).absolutePath());
    // The lock that QSettings takes around reading and rewriting the same file.
    QLockFile lock(settingsFile + QStringLiteral(".lock"));
    if (!lock.lock())
        return false;
    QByteArray text;
    QFile existing(settingsFile);
    if (existing.exists()) {
        if (!existing.open(QIODevice::ReadOnly))
            return false;
        text = existing.readAll();
        existing.close();
        if (memchr(text.constData(), '\r', size_t(text.size())))
            return false;
    }
    QByteArray out;
    out.reserve(text.size() + lines.size());
    bool placed = false;
    forEachLine(text, place, [&](const char* begin, const char* end, bool ours) {
        if (ours)
            return;
        out.append(begin, int(end - begin));
        out += '\n';
        if (!placed && size_t(end - begin) == size_t(place.section.size()) &&
            memcmp(begin, place.section.constData(), size_t(place.section.size())) == 0) {
            out += lines;
            placed = true;
        }
    });
    if (!placed) {
        if (!out.isEmpty() && !out.endsWith("\n\n"))
            out += '\n';
        out += place.section + '\n' + lines;
    }
    QSaveFile file(settingsFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(out) != out.size())
        return false;
    return file.commit();
}

} // namespace Dovel
