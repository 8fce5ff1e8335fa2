// Seeds of the binarydata target (fuzz/fuzz_binarydata.cpp): an op count, the ops, then
// items written by BinaryData's own writers, and a map block as MapBlock encodes it.
#include "Seeds.h"

#include "Dovel/transport/MapBlock.h"

#include "Basalt/BinaryData.h"

FuzzSeeds::Seeds FuzzSeeds::binarydata() {
    Basalt::BinaryData all;
    all.writeInt32(-7);
    all.writeInt64(int64_t(1) << 40);
    all.writeFloat32(1.5f);
    all.writeFloat64(-2.25);
    all.writeTimeStamp(Basalt::TimeStamp(1234567));
    all.writeVector2Float32(Quant::Vector2f(1, 2));
    all.writeVector2Int32(Quant::Vector2i(3, 4));
    all.writeVector3Float32(Quant::Vector3f(5, 6, 7));
    all.writeVector3Int32(Quant::Vector3i(8, 9, 10));
    all.writeVector4Float32(Quant::Vector4f(11, 12, 13, 14));
    all.writeVector4Int32(Quant::Vector4i(15, 16, 17, 18));
    all.writeString(QString::fromUtf8("t\xc3\xa9xt"));
    all.writeBlob("blob", 4);
    all.writeBlob("longer blob", 11);
    // Every reader in writing order, a blob into a buffer of 15 bytes, a blob into a
    // QByteArray, then rewind and read as strings.
    const QByteArray allOps = QByteArray::fromHex("000102030405060708090a0b ad 0e 13 0c0b");

    Basalt::BinaryData strings;
    strings.write("first");
    strings.write(QByteArray());
    strings.writeString(QStringLiteral("third"));
    // Read, seek back to 0 (op 16 + 1 << 5), copy, append, read twice as text.
    const QByteArray stringOps = QByteArray::fromHex("0b0b24111211 0c0c");

    // One op byte, 2: two map entries.
    const QByteArray block = Dovel::MapBlock::encode({{"a", "1"}, {"key", "v"}});
    return {{"all_items", char(allOps.size()) + allOps + all.toByteArray()},
            {"strings", char(stringOps.size()) + stringOps + strings.toByteArray()},
            {"map_block", QByteArray("\x01\x02", 2) + block},
            {"map_block_cut", QByteArray("\x01\x03", 2) + block.left(block.size() - 1)}};
}
