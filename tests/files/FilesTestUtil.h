// Helpers for the file-transfer tests: real folders in temporary directories, a folder
// server on an ephemeral loopback port, pulls with a deadline, and folder snapshots.
// The checksum cache of every AssetBase goes to a temporary settings folder (set up
// once for the whole executable in FilesEnvironment.cpp).
#pragma once

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FolderPull.h"
#include "Dovel/files/FolderServer.h"

#include "TestFiles.h"
#include "basalt/WaitUtil.h"
#include "transport/TransportTestUtil.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

namespace FilesTest {

using BasaltTest::waitUntil;
using TestFiles::readFile;
using TestFiles::writeFile;
using TransportTest::nextLine;
using TransportTest::RawPeer;

// Bytes that differ from position to position and from seed to seed.
inline QByteArray patternBytes(int size, int seed) {
    QByteArray bytes(size, '\0');
    uint32_t x = 2166136261u ^ static_cast<uint32_t>(seed);
    for (int i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        bytes[i] = static_cast<char>(x >> 24);
    }
    return bytes;
}

inline QByteArray md5Of(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
}

// Every file below `root` (links not followed), by name relative to the root.
inline QMap<QString, QByteArray> snapshot(const QString& root) {
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(path.mid(root.size()), readFile(path));
    }
    return files;
}

// Temporary download files left anywhere below `root`.
inline QStringList tempFiles(const QString& root) {
    QStringList found;
    QDirIterator it(root, QStringList{QStringLiteral("*.filesync.part")},
                    QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        found.append(it.next());
    return found;
}

// A FolderServer on 127.0.0.1 with an ephemeral port, serving `folder`.
class ServedFolder {
public:
    explicit ServedFolder(const QString& folder)
        : server(std::make_unique<Dovel::FolderServer>(folder)) {
        server->run(QStringLiteral("127.0.0.1"), 0);
        EXPECT_TRUE(server->waitListening(5000)) << "the server does not listen";
    }
    int port() const { return server->port(); }
    Dovel::FolderServer& get() { return *server; }

private:
    std::unique_ptr<Dovel::FolderServer> server;
};

// One pull of `folder` from the server at `port`; fails the test on a time-out.
inline Dovel::FolderPull::Result pull(const QString& folder, int port, bool deleteExtra) {
    Dovel::AssetBase asset(folder);
    auto puller = Dovel::FolderPull::create(asset, deleteExtra);
    puller->start(QStringLiteral("127.0.0.1"), port);
    EXPECT_TRUE(puller->waitFinished(30000)) << "the pull did not finish in time";
    const Dovel::FolderPull::Result result = puller->result();
    puller->shutdown();
    return result;
}

// The binary block of a map whose header line was just read: its int32 length item,
// which counts itself, and the rest. Null when it did not arrive.
inline QByteArray readMapBlock(RawPeer& peer) {
    const QByteArray lengthItem = peer.readExact(8);
    if (lengthItem.size() != 8)
        return QByteArray();
    const uint32_t length = uint8_t(lengthItem[4]) | uint8_t(lengthItem[5]) << 8 |
                            uint8_t(lengthItem[6]) << 16 | uint32_t(uint8_t(lengthItem[7])) << 24;
    return lengthItem + peer.readExact(int(length) - 8);
}

} // namespace FilesTest
