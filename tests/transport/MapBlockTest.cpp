// Maps on the line protocol byte for byte: the binary block for peers from 1.9.1 parsed
// on its own and framed by a connection, and the text form for older ones.
#include "TransportTestUtil.h"

#include "Dovel/transport/MapBlock.h"

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

    // A connection frames the block after its header line for a peer from 1.9.1 (UTF-8
    // keys, empty values and the empty map too), and writes key and value lines, their
    // newlines dropped, for older peers and before any handshake (0.0.0).
    auto c = std::make_shared<Dovel::ConnectionThread>(nullptr, false);
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("m"), {{"k", "v"}}), QByteArray("m 1\nk\nv\n"));
    c->setRemoteVersion(1, 9, 1, QString());
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("info"), map).toHex(),
              (QByteArray("info 2\n") + handBlock).toHex());
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("m"), {{QString::fromUtf8("\xc3\xa9"), ""}}).toHex(),
              (QByteArray("m 1\n") + QByteArray::fromHex("01000000 1a000000 05000000 02000000 "
                                                         "c3a9 05000000 00000000"))
                  .toHex());
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("info"), Map()),
              QByteArray("info 0\n") + QByteArray::fromHex("0100000008000000"));
    c->setRemoteVersion(1, 9, 0, QString());
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("info"), {{"a\nb", "1"}, {"c", "x\ny\n"}}),
              QByteArray("info 2\nab\n1\nc\nxy\n"));
}
