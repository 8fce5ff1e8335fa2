// The binary map block parsed on its own, byte for byte, and the seeds of the
// binarydata fuzz target, written with
//   DOVEL_WRITE_CORPUS=fuzz/corpus/binarydata build/bin/test_transport
//     --gtest_filter='BinaryDataCorpus.*'
#include "CorpusSeeds.h"
#include "TransportTestUtil.h"

#include "Dovel/transport/MapBlock.h"

#include "Basalt/BinaryData.h"

using namespace TransportTest;
using Map = QMap<QString, QString>;

namespace {

// MapBlock::encode({a: 1, key: v}) by hand: an int32 item (tag 1) holding the block's
// size, 46 with itself, then string items (tag 5, u32 byte count, bytes) in key order.
const QByteArray handBlock =
    QByteArray::fromHex("01000000 2e000000"
                        "05000000 01000000 61 05000000 01000000 31"       // a 1
                        "05000000 03000000 6b6579 05000000 01000000 76"); // key v

} // namespace

TEST(MapBlock, EncodesAndParsesByteForByte) {
    const Map map{{"key", "v"}, {"a", "1"}};
    EXPECT_EQ(Dovel::MapBlock::encode(map).toHex(), handBlock.toHex());
    EXPECT_EQ(Dovel::MapBlock::blockLength(handBlock.left(8)), 46);
    Map parsed;
    ASSERT_TRUE(Dovel::MapBlock::parseEntries(handBlock.mid(8), 2, parsed));
    EXPECT_EQ(parsed, map);
    // Fewer pairs than present is fine (the rest is ignored); more is a failure that
    // leaves nothing behind.
    ASSERT_TRUE(Dovel::MapBlock::parseEntries(handBlock.mid(8), 1, parsed));
    EXPECT_EQ(parsed, (Map{{"a", "1"}}));
    EXPECT_FALSE(Dovel::MapBlock::parseEntries(handBlock.mid(8), 3, parsed));
    EXPECT_TRUE(parsed.isEmpty());
    EXPECT_FALSE(Dovel::MapBlock::parseEntries(handBlock.mid(8), -1, parsed));
    // A value cut short, and a string count beyond the bytes present.
    EXPECT_FALSE(Dovel::MapBlock::parseEntries(handBlock.mid(8, 37), 2, parsed));
    EXPECT_FALSE(
        Dovel::MapBlock::parseEntries(QByteArray::fromHex("05000000ffffff7f61"), 1, parsed));
    EXPECT_TRUE(parsed.isEmpty());

    // The length item: an int32 item of at least its own 8 bytes.
    EXPECT_EQ(Dovel::MapBlock::blockLength(QByteArray::fromHex("0100000008000000")), 8);
    EXPECT_EQ(Dovel::MapBlock::blockLength(QByteArray::fromHex("0100000007000000")), -1);
    EXPECT_EQ(Dovel::MapBlock::blockLength(QByteArray::fromHex("01000000ffffffff")), -1);
    EXPECT_EQ(Dovel::MapBlock::blockLength(QByteArray::fromHex("020000002e000000")), -1);
    EXPECT_EQ(Dovel::MapBlock::blockLength(QByteArray::fromHex("010000002e")), -1);
}

TEST(BinaryDataCorpus, SeedsAreWhatTheWritersWrite) {
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
    // Ops (see fuzz/fuzz_binarydata.cpp): every reader in writing order, a blob into a
    // buffer of 15 bytes, a blob into a QByteArray, then rewind and read as strings.
    const QByteArray allOps = QByteArray::fromHex("000102030405060708090a0b ad 0e 13 0c0b");

    Basalt::BinaryData strings;
    strings.write("first");
    strings.write(QByteArray());
    strings.writeString(QStringLiteral("third"));
    // Read, seek back to 0 (op 16 + 1 << 5), copy, append, read twice as text.
    const QByteArray stringOps = QByteArray::fromHex("0b0b24111211 0c0c");

    const QByteArray block = Dovel::MapBlock::encode(Map{{"a", "1"}, {"key", "v"}});
    ASSERT_EQ(block, handBlock);
    // One op byte, 2: two map entries.
    CorpusSeeds::writeOrCompare(
        "binarydata",
        {{"all_items", char(allOps.size()) + allOps + all.toByteArray()},
         {"strings", char(stringOps.size()) + stringOps + strings.toByteArray()},
         {"map_block", QByteArray("\x01\x02", 2) + block},
         {"map_block_cut", QByteArray("\x01\x03", 2) + block.left(block.size() - 1)}});
}
