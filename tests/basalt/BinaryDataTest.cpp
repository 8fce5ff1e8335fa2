// BinaryData: the bytes of every item, reads that fail without moving, and counts from
// a peer refused before they size anything.
#include "Basalt/BinaryData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using Basalt::BinaryData;

namespace {

QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}

} // namespace

TEST(BinaryData, ItemsHaveTheDocumentedBytes) {
    BinaryData d;
    d.writeInt32(0x11223344);
    EXPECT_EQ(d.toByteArray(), hex("01000000 44332211"));
    EXPECT_EQ(d.size(), 8);

    struct Case {
        std::function<void(BinaryData&)> write;
        QByteArray bytes;
    };
    const Case cases[] = {
        {[](BinaryData& b) { b.writeInt32(-1); }, hex("01000000 ffffffff")},
        {[](BinaryData& b) { b.writeInt64(-2); }, hex("02000000 feffffffffffffff")},
        {[](BinaryData& b) { b.writeFloat32(1.0f); }, hex("03000000 0000803f")},
        {[](BinaryData& b) { b.writeFloat64(-2.0); }, hex("04000000 00000000000000c0")},
        {[](BinaryData& b) { b.writeString(QString::fromUtf8("h\xc3\xa9!")); },
         hex("05000000 04000000 68c3a921")},
        {[](BinaryData& b) { b.write(QByteArray("ab")); }, hex("05000000 02000000 6162")},
        {[](BinaryData& b) { b.write(QByteArray()); }, hex("05000000 00000000")},
        {[](BinaryData& b) { b.writeBlob("\xde\xad\xbe", 3); }, hex("06000000 03000000 deadbe")},
        {[](BinaryData& b) { b.writeTimeStamp(Basalt::TimeStamp(0x0102030405060708)); },
         hex("07000000 0807060504030201")},
        {[](BinaryData& b) { b.writeVector2Float32(Quant::Vector2f(1, -2)); },
         hex("08000000 0000803f 000000c0")},
        {[](BinaryData& b) { b.writeVector2Int32(Quant::Vector2i(1, -1)); },
         hex("09000000 01000000 ffffffff")},
        {[](BinaryData& b) { b.writeVector3Float32(Quant::Vector3f(0, 1, 0.5f)); },
         hex("0a000000 00000000 0000803f 0000003f")},
        {[](BinaryData& b) { b.writeVector3Int32(Quant::Vector3i(1, 2, 3)); },
         hex("0b000000 01000000 02000000 03000000")},
        {[](BinaryData& b) { b.writeVector4Float32(Quant::Vector4f(1, 1, 1, 2)); },
         hex("0c000000 0000803f 0000803f 0000803f 00000040")},
        {[](BinaryData& b) { b.writeVector4Int32(Quant::Vector4i(5, 6, 7, -8)); },
         hex("0d000000 05000000 06000000 07000000 f8ffffff")},
    };
    for (const Case& c : cases) {
        BinaryData b;
        c.write(b);
        EXPECT_EQ(b.toByteArray().toHex(), c.bytes.toHex());
    }
}

TEST(BinaryData, MismatchOrTruncationFailsAndKeepsThePosition) {
    BinaryData d;
    d.writeInt32(5);
    bool ok = true;
    EXPECT_EQ(d.readInt64(&ok), 0);
    EXPECT_FALSE(ok);
    EXPECT_EQ(d.readFloat32(&ok), 0.0f);
    EXPECT_FALSE(ok);
    QByteArray bytes;
    EXPECT_FALSE(d.readString(bytes));
    EXPECT_FALSE(d.readBlob(bytes));
    EXPECT_EQ(d.readVector2Int32(&ok), Quant::Vector2i());
    EXPECT_FALSE(ok);
    EXPECT_EQ(d.position(), 0);
    EXPECT_EQ(d.readInt32(&ok), 5); // the item is still there
    EXPECT_TRUE(ok);

    // Every strict prefix of an item fails to read, without moving.
    BinaryData full;
    full.writeString(QStringLiteral("truncated"));
    full.writeInt64(9);
    const QByteArray string = full.toByteArray().left(8 + 9);
    for (int cut = 0; cut < string.size(); ++cut) {
        BinaryData part = BinaryData::fromByteArray(string.left(cut));
        QString text = QStringLiteral("unchanged");
        EXPECT_FALSE(part.readString(text)) << cut;
        EXPECT_EQ(text, QStringLiteral("unchanged"));
        EXPECT_EQ(part.position(), 0);
    }
    const QByteArray int64 = full.toByteArray().mid(string.size());
    for (int cut = 0; cut < int64.size(); ++cut) {
        BinaryData part = BinaryData::fromByteArray(int64.left(cut));
        EXPECT_EQ(part.readInt64(&ok), 0);
        EXPECT_FALSE(ok) << cut;
        EXPECT_EQ(part.position(), 0);
    }
}

TEST(BinaryData, HostileCountsAreRefusedBeforeAllocating) {
    // A string that claims 4 GiB - 1, a blob that claims 2 GiB - 1, and one that claims
    // a byte more than is there: none may be read, none may allocate its claim.
    for (const QByteArray& bytes : {hex("05000000 ffffffff 616263"), hex("06000000 ffffff7f 00"),
                                    hex("06000000 04000000 010203")}) {
        BinaryData d = BinaryData::fromByteArray(bytes);
        QByteArray out("kept");
        EXPECT_FALSE(bytes[0] == 5 ? d.readString(out) : d.readBlob(out));
        EXPECT_EQ(out, QByteArray("kept"));
        char small[16];
        EXPECT_FALSE(d.readBlob(small, sizeof small));
        EXPECT_EQ(d.position(), 0);
    }

    // A blob longer than the caller's buffer is not copied at all.
    BinaryData d;
    d.writeBlob("abcdef", 6);
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_FALSE(d.readBlob(buffer, 4));
    EXPECT_EQ(d.lastBlobSize(), 0);
    EXPECT_EQ(std::memcmp(buffer, "xxxx", 4), 0);
    EXPECT_EQ(d.position(), 0);
    char big[8] = {};
    EXPECT_TRUE(d.readBlob(big, 8));
    EXPECT_EQ(d.lastBlobSize(), 6);
    EXPECT_EQ(std::memcmp(big, "abcdef", 6), 0);
}
