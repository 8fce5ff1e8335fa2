// The packet, its reader and its writer, byte for byte.
#include "BundleTestUtil.h"

#include "Dovel/bundle/BundleOutput.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::failure;
using BundleTest::pastEnd;

namespace {

// A bundle over exactly these payload bytes (no padding added).
Bundle withPayload(const QByteArray& payload) {
    return Bundle(BundleTest::packet(0, 0, 0, payload));
}

} // namespace

TEST(BundleFormat, EmptyBundleAndPacketValidation) {
    const Bundle empty;
    EXPECT_EQ(empty.packet(), QByteArray(16, '\0'));
    EXPECT_EQ(empty.header(), reinterpret_cast<const uint32_t*>(empty.packet().constData()));
    EXPECT_TRUE(BundleReader(empty).atEnd());
    EXPECT_EQ(BundleCore().size(), 0u);

    EXPECT_NO_THROW((void)Bundle(QByteArray(16, '\0')));
    EXPECT_EQ(failure<std::invalid_argument>([] { (void)Bundle(QByteArray(15, '\0')); }),
              "Bundle::Bundle # Corrupted packet, header is missing");
    EXPECT_EQ(failure<std::invalid_argument>([] { (void)Bundle(QByteArray()); }),
              "Bundle::Bundle # Corrupted packet, header is missing");
    // 20 bytes whose size word says 8.
    EXPECT_EQ(failure<std::invalid_argument>(
                  [] { (void)Bundle(Bytes().word(8).word(0).word(0).word(0).word(0).data()); }),
              "Bundle::Bundle # Corrupted packet");
    // A size word that wraps to the array size in 32 bits is not accepted by accident.
    EXPECT_EQ(failure<std::invalid_argument>(
                  [] { (void)Bundle(Bytes().word(0xFFFFFFF0u).word(0).word(0).word(0).data()); }),
              "Bundle::Bundle # Corrupted packet");

    const Bundle parsed(Bytes().word(4).word(3).word(9).word(2).word(0xAABBCCDD).data());
    EXPECT_EQ(parsed.headerWord(0), 4u);
    EXPECT_EQ(parsed.messageType(), 3u);
    EXPECT_EQ(parsed.sequenceNumber(), 9u);
    EXPECT_EQ(parsed.headerWord(3), 2u);
    EXPECT_EQ(BundleCore().headerWord(1), 0u); // too short: no header to read

    EXPECT_EQ(Bundle::align4(5), 8u);
    EXPECT_EQ(Bundle::align4(0xFFFFFFFDu), 0u); // 32-bit arithmetic

    // rewind drops the header too; such a packet is no bundle.
    Bundle b;
    BundleWriter writer(b);
    writer.writeUInt32(1);
    writer.rewind();
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(writer.pos(), 0u);
    EXPECT_EQ(failure<std::invalid_argument>([&] { (void)Bundle(b.packet()); }),
              "Bundle::Bundle # Corrupted packet, header is missing");
}

TEST(BundleFormat, WriterItemsByteForByte) {
    Bundle b;
    BundleWriter w(b);
    w.writeString(QString());
    w.writeString(QStringLiteral("abcd"));
    w.writeString(QStringLiteral("abcde"));
    w.writeUInt32(0x01020304u);
    w.writeInt32(-2);
    w.writeFloat(1.0f);
    w.writeUInt64(0x1122334455667788ull);
    w.writeDouble(-2.0);
    w.writeString(QString::fromUtf8("\xC3\xA9")); // é: two UTF-8 bytes
    EXPECT_EQ(b.packet(),
              QByteArray(16, '\0') +
                  QByteArray::fromHex(
                      "00000000 04000000 61626364 05000000 6162636465000000 04030201 feffffff "
                      "0000803f 8877665544332211 00000000000000c0 02000000 c3a90000"));

    Bundle d;
    BundleWriter dw(d);
    dw.writeData("xyzuv", 5);
    EXPECT_EQ(d.size(), 24u);
    EXPECT_EQ(d.packet().mid(16), QByteArray::fromHex("78797a7576000000"));
    dw.writeData("1234", 4);
    EXPECT_EQ(d.size(), 28u);
    dw.writeData("ignored", 0);
    EXPECT_EQ(d.size(), 28u);
    struct Pair {
        int16_t a;
        int16_t b;
        int16_t c;
    };
    dw.writeValue(Pair{1, 2, 3}); // 6 bytes, padded to 8
    EXPECT_EQ(d.packet().mid(28), QByteArray::fromHex("0100020003000000"));
}

TEST(BundleFormat, LengthPrefixedSectionAndWriteDataAt) {
    Bundle b;
    BundleWriter w(b);
    const uint32_t start = w.beginSection();
    EXPECT_EQ(start, 16u);
    w.writeString(QStringLiteral("abcde"));
    w.writeUInt32(7);
    w.endSection(start);
    EXPECT_EQ(b.packet().mid(16),
              QByteArray::fromHex("10000000 05000000 6162636465000000 07000000"));

    const uint32_t size = w.pos();
    EXPECT_EQ(size, 36u);
    const uint32_t v = 0xDDCCBBAAu;
    w.writeDataAt(size - 4, &v, 4);
    EXPECT_EQ(b.packet().right(4), QByteArray::fromHex("aabbccdd"));
    w.writeDataAt(size, &v, 0); // nothing, at the very end
    EXPECT_EQ(b.size(), size);
    const char* const message = "BundleWriterCore::writeDataAt # tried to write past the end";
    EXPECT_EQ(failure<std::out_of_range>([&] { w.writeDataAt(size - 3, &v, 4); }), message);
    // A position near 2^32 must not wrap into the packet.
    EXPECT_EQ(failure<std::out_of_range>([&] { w.writeDataAt(0xFFFFFFFEu, &v, 4); }), message);
    EXPECT_EQ(b.size(), size); // never grows
    EXPECT_EQ(b.packet().right(4), QByteArray::fromHex("aabbccdd"));
}

TEST(BundleFormat, ReaderBoundRule) {
    // "abcde" whose final padding is missing: 25 bytes in all.
    const Bundle b = withPayload(Bytes().word(5).raw("abcde").data());
    ASSERT_EQ(b.size(), 25u);
    BundleReader r(b);
    EXPECT_EQ(r.pos(), 16u);
    EXPECT_EQ(r.read(0), b.packet().constData() + 16); // read(0) stays put
    EXPECT_EQ(r.pos(), 16u);
    EXPECT_EQ(r.readBytes(), QByteArray("abcde"));
    EXPECT_EQ(r.pos(), 28u); // past the end by the missing padding
    EXPECT_TRUE(r.atEnd());
    EXPECT_EQ(failure<std::out_of_range>([&] { r.read(0); }), pastEnd);
    EXPECT_EQ(r.pos(), 28u);

    BundleReaderCore fromStart(b);
    EXPECT_EQ(fromStart.pos(), 0u);
    EXPECT_EQ(fromStart.readUInt32(), 9u); // header word 0
    EXPECT_FALSE(fromStart.atEnd());

    // Every failing read leaves the position where it found it.
    const Bundle one = withPayload(Bytes().word(10).data());
    QByteArray out("untouched");
    QString text = QStringLiteral("untouched");
    auto fresh = [&] { return BundleReader(one); };
    {
        BundleReader rr = fresh();
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.read(5); }), pastEnd);
        EXPECT_EQ(rr.pos(), 16u);
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.readUInt64(); }), pastEnd);
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.readDouble(); }), pastEnd);
        EXPECT_EQ(rr.pos(), 16u);
        EXPECT_EQ(rr.readUInt32(), 10u);
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.readUInt32(); }), pastEnd);
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.readFloat(); }), pastEnd);
        EXPECT_EQ(rr.pos(), 20u);
    }
    // A count of 10 with no bytes behind it: the count word is consumed, nothing else.
    const std::function<void(BundleReader&)> countedReads[] = {
        [&](BundleReader& rr) { rr.read(out); }, [&](BundleReader& rr) { rr.readBinary(out, 100); },
        [&](BundleReader& rr) { rr.readString(out, 100); },
        [&](BundleReader& rr) { rr.readString(text, 100); },
        [&](BundleReader& rr) { rr.readString(); }};
    for (int op = 0; op < 5; ++op) {
        BundleReader rr = fresh();
        EXPECT_EQ(failure<std::out_of_range>([&] { countedReads[op](rr); }), pastEnd) << op;
        EXPECT_EQ(rr.pos(), 20u) << "op " << op;
    }
    EXPECT_EQ(out, QByteArray("untouched"));
    EXPECT_EQ(text, QStringLiteral("untouched"));

    // A count close to 2^32 would wrap a 32-bit sum back inside the packet.
    const Bundle huge = withPayload(Bytes().word(0xFFFFFFFCu).word(0).word(0).data());
    {
        BundleReader rr(huge);
        EXPECT_EQ(failure<std::out_of_range>([&] { rr.read(out); }), pastEnd);
        EXPECT_EQ(rr.pos(), 20u);
        BundleReader rb(huge);
        EXPECT_EQ(failure<std::out_of_range>([&] { rb.readBinary(out, 0xFFFFFFFFu); }), pastEnd);
        BundleReader direct(huge, 20);
        EXPECT_EQ(failure<std::out_of_range>([&] { direct.read(0xFFFFFFFFu); }), pastEnd);
        EXPECT_EQ(direct.pos(), 20u);
    }
    EXPECT_EQ(out, QByteArray("untouched"));
}

TEST(BundleFormat, ReaderStringsAndLimits) {
    Bundle b;
    BundleWriter w(b);
    w.writeString(QString());
    w.writeString(QStringLiteral("abcd"));
    w.writeString(QStringLiteral("abcde"));
    w.writeBytes(QByteArray("a\0b", 3));
    w.writeString(QString::fromUtf8("\xC3\xA9t\xC3\xA9"));

    QByteArray out;
    QString text;
    {
        BundleReader r(b);
        r.readString(out, 0); // empty string, any limit
        EXPECT_TRUE(out.isEmpty());
        EXPECT_FALSE(out.isNull());
        EXPECT_EQ(r.pos(), 20u);
        r.readString(out, 4); // count equal to maxSize
        EXPECT_EQ(out, QByteArray("abcd"));
        EXPECT_EQ(r.pos(), 28u);
        r.readBinary(out, 5);
        EXPECT_EQ(out, QByteArray("abcde"));
        r.readBinary(out, 3);
        EXPECT_EQ(out, QByteArray("a\0b", 3)); // binary may hold zero bytes
        r.readString(text, 100);
        EXPECT_EQ(text, QString::fromUtf8("\xC3\xA9t\xC3\xA9"));
        EXPECT_TRUE(r.atEnd());
    }
    {
        BundleReader r(b, 20);
        out = "keep";
        EXPECT_EQ(failure<std::invalid_argument>([&] { r.readString(out, 3); }),
                  "BundleReaderCore::readString # too many characters");
        EXPECT_EQ(r.pos(), 24u); // the count is consumed
        EXPECT_EQ(out, QByteArray("keep"));
        BundleReader rb(b, 20);
        EXPECT_EQ(failure<std::invalid_argument>([&] { rb.readBinary(out, 3); }),
                  "BundleReaderCore::readBinary # too many characters");
        EXPECT_EQ(rb.pos(), 24u);
        BundleReader rq(b, 20);
        EXPECT_EQ(failure<std::invalid_argument>([&] { rq.readString(text, 3); }),
                  "BundleReaderCore::readString # too many characters");
    }
    {
        BundleReader r(b, 40); // the string holding a zero byte
        EXPECT_EQ(failure<std::invalid_argument>([&] { r.readString(out, 100); }),
                  "BundleReaderCore::readString # size mismatch");
        EXPECT_EQ(r.pos(), 48u);
    }
    {
        BundleReader r(b, 16);
        EXPECT_EQ(r.readString(), QString());
        EXPECT_EQ(r.readBytes(), QByteArray("abcd"));
        EXPECT_EQ(r.readInt32(), 5);
        EXPECT_EQ(QByteArray(r.read(5), 5), QByteArray("abcde"));
        EXPECT_EQ(r.pos(), 40u);
    }
    // Typed words back from hand-written bytes.
    const Bundle words = withPayload(QByteArray::fromHex(
        "feffffff 0000803f 8877665544332211 00000000000000c0 0100020003000000"));
    BundleReader r(words);
    EXPECT_EQ(r.readInt32(), -2);
    EXPECT_EQ(r.readFloat(), 1.0f);
    EXPECT_EQ(r.readUInt64(), 0x1122334455667788ull);
    EXPECT_EQ(r.readDouble(), -2.0);
    struct Triple {
        int16_t a, b, c;
    };
    const Triple t = r.readValue<Triple>();
    EXPECT_EQ(t.a, 1);
    EXPECT_EQ(t.c, 3);
    EXPECT_TRUE(r.atEnd());
    EXPECT_EQ(r.pos(), 48u);
}

TEST(BundleFormat, OutputNumbersBundlesAndCutsThePendingOneBack) {
    std::vector<Bundle> out;
    uint32_t sequence = 5;
    BundleOutput output(&out, &sequence, 3);
    EXPECT_EQ(output.sequence(), 5u);
    EXPECT_EQ(output.acknowledged(), 3u);

    Bundle pending;
    BundleWriter w(pending);
    EXPECT_FALSE(output.finish(pending, 9)); // header only: nothing to emit
    EXPECT_TRUE(out.empty());
    w.writeString(QStringLiteral("abcde"));
    EXPECT_TRUE(output.finish(pending, 9));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(sequence, 6u);
    EXPECT_EQ(out[0].packet(), BundleTest::packet(9, 5, 3, Bytes().str("abcde").data()));
    // The pending bundle is cut back for reuse without touching the emitted one.
    EXPECT_EQ(pending.size(), 16u);
    w.writeUInt32(0xFFFFFFFFu);
    EXPECT_EQ(out[0].packet(), BundleTest::packet(9, 5, 3, Bytes().str("abcde").data()));

    output.add(out[0]);
    EXPECT_EQ(sequence, 7u);
}
