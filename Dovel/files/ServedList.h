// The file list a folder server sends to every peer that logs in: built again only when
// something in the folder changed since (FolderWatch; a folder too large to watch is
// walked again at most every MaxAgeSeconds), and encoded once for all peers, each of
// which is handed the same bytes. So a burst of logins costs one walk and one copy of
// the list, not one per login.
//
// On the wire: maps of at most ListChunk entries and about ListChunkBytes, each
// "filelist N" and its map, then "fileskipped NAME" (percent-encoded) for each file the
// protocol cannot carry, and "filelistend TOTAL".
//
// Thread-safe: connections of the server ask for it on their own threads.
#pragma once

#include "Dovel/Limits.h"
#include "Dovel/files/FolderIndex.h"
#include "Dovel/files/FolderWatch.h"

#include "Basalt/Stopwatch.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <functional>
#include <mutex>

namespace Dovel {

class ServedList {
public:
    static constexpr double MaxAgeSeconds = 2.0;
    static constexpr int ListChunk = 4096;
    // Half the map block a puller takes: a chunk of long names (up to
    // Limits::MaxFileNameBytes each) stays readable.
    static constexpr int ListChunkBytes = Limits::MaxMapBlockBytes / 2;

    // Cuts the list into the maps it is sent as, in name order, and hands each to `send`.
    static void forEachChunk(const FileList& list,
                             const std::function<void(const QMap<QString, QString>&)>& send);

    explicit ServedList(FolderIndex& index) : index(index) {}

    // The lines and maps of the list as it is now (no older than MaxAgeSeconds), maps in
    // the binary form or, for old peers, the text form.
    QList<QByteArray> current(bool binaryMaps);

private:
    FolderIndex& index;
    std::mutex mutex;
    bool built = false;
    FolderWatch watch;
    bool watching = false;
    Basalt::Stopwatch builtAt;
    FileList list;
    QStringList skipped;
    QList<QByteArray> binary; // made when first asked for
    QList<QByteArray> text;
};

} // namespace Dovel
