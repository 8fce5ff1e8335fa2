// The command lines of the file-transfer protocol, as this side writes them ("\n"
// included; names are relative to the folder, quoted, and begin with "/"):
//
//   sendfileinfo "NAME"              ask for a file's description
//   fileinfo SIZE "NAME" PARTS MD5   the description (MD5: 32 lowercase hex digits)
//   sendparts "NAME"                 ask for all parts of the file
//   filepart "NAME" COUNT N          part N (from 1) follows: exactly COUNT raw bytes
//
// Pure functions; thread-safe.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace Dovel {
namespace FileCommands {

// The bytes of a full part.
constexpr int64_t PartSize = 65536;

QByteArray sendFileInfoLine(const QString& name);
QByteArray fileInfoLine(int64_t size, const QString& name, int64_t parts, const QString& md5);
QByteArray sendPartsLine(const QString& name);
QByteArray filePartLine(const QString& name, int64_t bytes, int64_t part);
// Parts announced for a file of `size` bytes: size / PartSize rounded up, computed in
// single precision as every peer does.
int64_t announcedParts(int64_t size);

} // namespace FileCommands
} // namespace Dovel
