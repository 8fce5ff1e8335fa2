// The binary form of a map sent over the line protocol to peers of version 1.9.1 and
// later: an int32 BinaryData item holding the block's whole size (the 8-byte item
// included), then each entry's key and value as BinaryData strings, in key order.
// ConnectionThread frames the block on the socket; these functions only parse bytes
// already read. Stateless; thread-safe.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

namespace Dovel::MapBlock {

// Size in bytes of the length item that starts every block.
constexpr int LengthItemBytes = 8;

// The block size announced by a length item, or -1 when the bytes are not an int32
// item or announce less than the item itself.
int blockLength(const QByteArray& lengthItem);
// Reads `count` key/value pairs from `body` (the block after its length item) into
// `out`. False, with `out` emptied, when the body holds fewer well-formed pairs or
// `count` is negative. Bytes after the last pair are ignored.
bool parseEntries(const QByteArray& body, int count, QMap<QString, QString>& out);
// The whole block (length item included) for `map`.
QByteArray encode(const QMap<QString, QString>& map);

} // namespace Dovel::MapBlock
