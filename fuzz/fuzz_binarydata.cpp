// Basalt::BinaryData readers steered by the input, and the binary map block of the line
// protocol. Input: a count byte N (0..31), N op bytes, then the bytes under test. The
// ops read items of every kind (a blob into a buffer of an op-chosen size among them),
// peek, seek, copy, link and append; every string or blob read is written to a fresh
// buffer and must read back the same. Then the bytes are parsed as a map block: as its
// length item and body, and as a body of an op-chosen count; a parsed map must encode
// to a block that parses back to it.
#include "Dovel/transport/MapBlock.h"

#include "Basalt/BinaryData.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz_binarydata: %s\n", what);
        std::abort();
    }
}

// A failed read must leave the position alone.
template <typename Read> void readItem(Basalt::BinaryData& data, Read&& read) {
    const int before = data.position();
    bool ok = true;
    read(&ok);
    check(ok || data.position() == before, "a failed read moved the position");
    check(data.position() >= 0 && data.position() <= data.size(), "position out of range");
}

void roundTripString(const QByteArray& bytes) {
    Basalt::BinaryData out;
    out.write(bytes);
    QByteArray back;
    check(out.readString(back) && back == bytes && out.atEnd(), "string round trip");
}

void roundTripBlob(const QByteArray& bytes) {
    Basalt::BinaryData out;
    out.writeBlob(bytes.constData(), bytes.size());
    QByteArray back;
    check(out.readBlob(back) && back == bytes && out.atEnd(), "blob round trip");
}

void step(Basalt::BinaryData& data, uint8_t op) {
    switch (op % 20) {
    case 0:
        readItem(data, [&](bool* ok) { data.readInt32(ok); });
        break;
    case 1:
        readItem(data, [&](bool* ok) { data.readInt64(ok); });
        break;
    case 2:
        readItem(data, [&](bool* ok) { data.readFloat32(ok); });
        break;
    case 3:
        readItem(data, [&](bool* ok) { data.readFloat64(ok); });
        break;
    case 4:
        readItem(data, [&](bool* ok) { data.readTimeStamp(ok); });
        break;
    case 5:
        readItem(data, [&](bool* ok) { data.readVector2Float32(ok); });
        break;
    case 6:
        readItem(data, [&](bool* ok) { data.readVector2Int32(ok); });
        break;
    case 7:
        readItem(data, [&](bool* ok) { data.readVector3Float32(ok); });
        break;
    case 8:
        readItem(data, [&](bool* ok) { data.readVector3Int32(ok); });
        break;
    case 9:
        readItem(data, [&](bool* ok) { data.readVector4Float32(ok); });
        break;
    case 10:
        readItem(data, [&](bool* ok) { data.readVector4Int32(ok); });
        break;
    case 11: {
        QByteArray bytes;
        readItem(data, [&](bool* ok) { *ok = data.readString(bytes); });
        if (!bytes.isNull())
            roundTripString(bytes);
        break;
    }
    case 12: {
        QString text;
        readItem(data, [&](bool* ok) { *ok = data.readString(text); });
        break;
    }
    case 13: {
        // A caller's buffer of a size the op chooses, guarded on both sides.
        const int room = (op >> 5) * 3;
        QByteArray buffer(room + 16, '\xee');
        bool read = false;
        readItem(data, [&](bool* ok) { *ok = read = data.readBlob(buffer.data() + 8, room); });
        check(data.lastBlobSize() >= 0 && data.lastBlobSize() <= room, "blob size out of range");
        check(std::memcmp(buffer.constData(), "\xee\xee\xee\xee\xee\xee\xee\xee", 8) == 0 &&
                  std::memcmp(buffer.constData() + 8 + room, "\xee\xee\xee\xee\xee\xee\xee\xee",
                              8) == 0,
              "blob written outside the caller's buffer");
        if (read)
            roundTripBlob(buffer.mid(8, data.lastBlobSize()));
        break;
    }
    case 14: {
        QByteArray bytes;
        readItem(data, [&](bool* ok) { *ok = data.readBlob(bytes); });
        if (!bytes.isNull())
            roundTripBlob(bytes);
        break;
    }
    case 15:
        data.peekTag();
        break;
    case 16: {
        const int target = (op >> 5) * 4 - 4;
        const bool valid = target >= 0 && target <= data.size();
        check(data.seek(target) == valid, "seek accepted a position outside the data");
        break;
    }
    case 17: {
        Basalt::BinaryData copy(data);
        check(copy == data && copy.position() == data.position(), "copy differs");
        data = copy;
        break;
    }
    case 18: {
        Basalt::BinaryData doubled(data);
        doubled.append(data);
        doubled.append(doubled);
        check(doubled.size() == 4 * data.size(), "append size");
        break;
    }
    default:
        data.rewind();
        break;
    }
}

void mapBlock(const QByteArray& bytes, int count) {
    QMap<QString, QString> map;
    const int length = Dovel::MapBlock::blockLength(bytes.left(Dovel::MapBlock::LengthItemBytes));
    if (length >= Dovel::MapBlock::LengthItemBytes && length <= bytes.size())
        Dovel::MapBlock::parseEntries(bytes.mid(8, length - 8), count, map);
    if (!Dovel::MapBlock::parseEntries(bytes, count, map))
        check(map.isEmpty(), "a failed parse left entries");
    const QByteArray encoded = Dovel::MapBlock::encode(map);
    check(Dovel::MapBlock::blockLength(encoded.left(8)) == encoded.size(), "encoded length");
    QMap<QString, QString> back;
    check(Dovel::MapBlock::parseEntries(encoded.mid(8), map.size(), back) && back == map,
          "map round trip");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const size_t ops = std::min<size_t>(data[0] % 32, size - 1);
    const QByteArray bytes(reinterpret_cast<const char*>(data + 1 + ops), int(size - 1 - ops));

    Basalt::BinaryData owned = Basalt::BinaryData::fromByteArray(bytes);
    QByteArray external = bytes; // linked memory outlives the reader
    Basalt::BinaryData linked;
    linked.linkTo(external.data(), external.size());
    for (size_t i = 0; i < ops; ++i) {
        step(owned, data[1 + i]);
        step(linked, data[1 + i]);
        check(owned.position() == linked.position(), "linked and owned readers disagree");
    }
    mapBlock(bytes, ops == 0 ? 1 : data[1] % 16);
    return 0;
}
