// Seeds of the files target (fuzz/fuzz_files.cpp): a mode byte (see LinePeer.h; the peer
// logs in as 2.6.1), then the file-transfer lines and bytes a peer sends, made by the
// handler's own line builders. The target's folder holds "/a.txt" and "/sub/b.bin".
#include "Seeds.h"

#include "Dovel/files/FileCommands.h"
#include "Dovel/files/FileTransferHandler.h"

#include <QCryptographicHash>

namespace FileCommands = Dovel::FileCommands;
using Dovel::FileTransferHandler;

namespace {

const char ServerLoggedIn = 2 | 2 << 2;
const char ClientLoggedIn = 1 | 2 << 2;

QString md5(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

// A description and all parts of a file, as a serving peer sends them.
QByteArray upload(const QString& name, const QByteArray& bytes) {
    const int64_t parts = FileCommands::announcedParts(bytes.size());
    QByteArray out = FileCommands::fileInfoLine(bytes.size(), name, parts, md5(bytes));
    if (bytes.isEmpty())
        return out + FileCommands::filePartLine(name, 0, 1);
    for (int64_t part = 1; part <= parts; ++part) {
        const QByteArray chunk = bytes.mid(int((part - 1) * FileTransferHandler::PartSize),
                                           int(FileTransferHandler::PartSize));
        out += FileCommands::filePartLine(name, chunk.size(), part) + chunk;
    }
    return out;
}

} // namespace

FuzzSeeds::Seeds FuzzSeeds::files() {
    QByteArray big(int(FileTransferHandler::PartSize) + 3, '\0');
    for (int i = 0; i < big.size(); ++i)
        big[i] = char(i * 31 + 7);
    const QByteArray serve =
        FileCommands::sendFileInfoLine("/a.txt") + FileCommands::sendPartsLine("/a.txt") +
        FileCommands::sendFileInfoLine("/sub/b.bin") + FileCommands::sendPartsLine("/sub/b.bin") +
        FileCommands::sendFileInfoLine("/missing") +
        FileCommands::sendPartsLine("/../outside.txt") + FileCommands::sendPartsLine("/sub");
    const QByteArray refused =
        FileCommands::fileInfoLine(5, "/../up.txt", 1, md5("abcde")) +
        FileCommands::fileInfoLine(5, "/sub/../../x", 1, md5("abcde")) +
        FileCommands::fileInfoLine(-1, "/neg", 1, md5("")) +
        FileCommands::filePartLine("/x", 3, 2) + "abc" + // nothing being downloaded
        FileCommands::filePartLine("/x", 99999999, 1);   // beyond the part limit
    const QByteArray outOfOrder = FileCommands::fileInfoLine(big.size(), "/o.bin", 2, md5(big)) +
                                  FileCommands::filePartLine("/o.bin", 3, 2) + big.right(3);
    const QByteArray mismatch = FileCommands::fileInfoLine(3, "/m.txt", 1, md5("xyz")) +
                                FileCommands::filePartLine("/m.txt", 3, 1) + "abc";
    return {
        {"serve", ServerLoggedIn + serve},
        {"receive_one", ServerLoggedIn + upload("/new.txt", "hello world")},
        {"receive_two_parts", ServerLoggedIn + upload("/dir/big.bin", big)},
        {"receive_empty", ServerLoggedIn + upload("/e/empty", QByteArray())},
        {"receive_over_served", ClientLoggedIn + upload("/a.txt", "replaced")},
        {"refused", ServerLoggedIn + refused},
        {"out_of_order", ServerLoggedIn + outOfOrder},
        {"md5_mismatch", ClientLoggedIn + mismatch},
    };
}
