// A peer of the file-transfer protocol, against a FileTransferHandler over a real
// loopback connection: "sendfileinfo", "fileinfo", "sendparts" and "filepart" lines
// with their raw bytes, as both the serving side (it answers descriptions and streams
// parts of the files it holds) and the receiving side (it accepts descriptions, writes
// parts to temporary files, checks the MD5 and renames into place) parse them. The mode
// byte is described in LinePeer.h; the rest is what the peer writes.
//
// The handler's folder lies inside a temporary directory made once; every iteration
// starts from the same two files, and afterwards nothing outside the folder may have
// changed (checked, abort otherwise).
#include "FuzzSupport.h"
#include "LinePeer.h"

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FileTransferHandler.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

// Every path below `top` except those below `skip`, with the contents of files.
QMap<QString, QByteArray> listing(const QString& top, const QString& skip) {
    QMap<QString, QByteArray> entries;
    QDirIterator it(top, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (path == skip || path.startsWith(skip + QLatin1Char('/')))
            continue;
        QFile file(path);
        entries.insert(path, file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray());
    }
    return entries;
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        std::abort();
}

struct Folder {
    Folder() {
        if (!top.isValid() || !settings.isValid())
            std::abort();
        // The checksum cache goes to a scratch settings folder, never the user's.
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
        root = top.path() + QStringLiteral("/share/root");
        writeFile(top.path() + QStringLiteral("/outside.txt"), "not to be touched");
        writeFile(top.path() + QStringLiteral("/share/beside/keep.bin"), "nor this");
        reset();
        outside = listing(top.path(), root);
    }

    // The folder as every iteration finds it: a small file and one of two parts.
    void reset() {
        QDir(root).removeRecursively();
        writeFile(root + QStringLiteral("/a.txt"), "hello");
        QByteArray two(65536 + 7, 'b');
        writeFile(root + QStringLiteral("/sub/b.bin"), two);
    }

    void checkOutside() const {
        if (listing(top.path(), root) != outside) {
            std::fprintf(stderr, "fuzz_files: something outside %s changed\n", qPrintable(root));
            std::abort();
        }
    }

    QTemporaryDir top;
    QTemporaryDir settings;
    QString root;
    QMap<QString, QByteArray> outside;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::silenceLog();
    static Folder folder;
    if (size == 0)
        return 0;
    const LinePeer::Mode mode = LinePeer::decodeMode(data[0]);
    const QByteArray stream(reinterpret_cast<const char*>(data + 1), int(size - 1));
    {
        Dovel::AssetBase asset(folder.root);
        LinePeer::run(mode, stream, [&asset](Basalt::TCPSocket* socket, bool serverSide) {
            auto connection = Dovel::ConnectionThread::create<Dovel::FileTransferHandler>(
                socket, serverSide, asset);
            connection->setKeepRetrying(false);
            return connection;
        });
    }
    folder.checkOutside();
    folder.reset();
    return 0;
}
