#include "Dovel/files/ServedList.h"

#include "Dovel/transport/ConnectionThread.h"

#include <QUrl>

namespace Dovel {

void ServedList::forEachChunk(const FileList& list,
                              const std::function<void(const QMap<QString, QString>&)>& send) {
    QMap<QString, QString> chunk;
    int64_t chunkBytes = 0;
    const auto flush = [&] {
        send(chunk);
        chunk.clear();
        chunkBytes = 0;
    };
    for (auto it = list.constBegin(); it != list.constEnd(); ++it) {
        const QString value = QString::number(it->size) + QLatin1Char(' ') + it->md5;
        // At most three UTF-8 bytes per UTF-16 unit, and each string's tag and length.
        const int64_t entryBytes = 3 * int64_t(it.key().size() + value.size()) + 16;
        if (!chunk.isEmpty() && chunkBytes + entryBytes > ListChunkBytes)
            flush();
        chunk.insert(chunk.constEnd(), it.key(), value);
        chunkBytes += entryBytes;
        if (chunk.size() == ListChunk)
            flush();
    }
    if (!chunk.isEmpty())
        send(chunk);
}

QList<QByteArray> ServedList::current(bool binaryMaps) {
    std::lock_guard<std::mutex> lock(mutex);
    const bool stale =
        !built || (watching ? watch.changed() : builtAt.elapsedSeconds() > MaxAgeSeconds);
    if (stale) {
        list = index.build(nullptr);
        // Watched from after the walk: a change during it may show only at the next.
        watching = watch.watch(index.walkedFolders());
        skipped = index.uncarriableNames();
        builtAt.restart();
        built = true;
        binary.clear();
        text.clear();
    }
    QList<QByteArray>& encoded = binaryMaps ? binary : text;
    if (encoded.isEmpty()) {
        forEachChunk(list, [&](const QMap<QString, QString>& chunk) {
            encoded.append(
                ConnectionThread::encodeMap(QStringLiteral("filelist"), chunk, binaryMaps));
        });
        QByteArray tail;
        for (const QString& name : skipped)
            tail += "fileskipped " + QUrl::toPercentEncoding(name, "/") + '\n';
        tail += "filelistend " + QByteArray::number(list.size()) + '\n';
        encoded.append(tail);
    }
    return encoded;
}

} // namespace Dovel
