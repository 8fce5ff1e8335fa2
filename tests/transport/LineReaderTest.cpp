// The line reader against a fake source, without sockets or threads: lines and blocks
// split across reads at every size, maps in both forms, and hostile sizes that must be
// refused before they size anything.
#include "Dovel/transport/LineReader.h"
#include "Dovel/Limits.h"
#include "transport/FakeLink.h"

#include <QMap>

#include <gtest/gtest.h>

namespace {

using Map = QMap<QString, QString>;
using Failure = Dovel::LineReader::Failure;

using TransportTest::FakeSource;

// Two entries as a binary block: "a" = "1", "b" = "".
const QByteArray Block = QByteArray::fromHex("010000002b000000"
                                             "05000000 01000000 61 05000000 01000000 31"
                                             "05000000 01000000 62 05000000 00000000");

} // namespace

TEST(LineReader, ReadsWhatArrivesInAnyPieces) {
    const QByteArray stream = "one\r\n\n\rtwo\nblock 5\nabcde\nskip\n12345\n" + Block +
                              "text\nk\nv\r\nshort\n" +
                              QByteArray::fromHex("010000001a000000 050000000100000061"
                                                  "050000000100000062") +
                              "last";
    for (int piece : {1, 2, 7, 16384}) {
        SCOPED_TRACE(piece);
        FakeSource source(stream, piece);
        Dovel::LineReader reader(source);
        EXPECT_EQ(reader.line(), QStringLiteral("one")); // empty lines are skipped
        EXPECT_EQ(reader.line(), QStringLiteral("two"));
        EXPECT_EQ(reader.line(), QStringLiteral("block 5"));
        EXPECT_EQ(reader.readData(5), QByteArray("abcde"));
        EXPECT_EQ(reader.readData(0), QByteArray());
        EXPECT_EQ(reader.line(), QStringLiteral("skip"));
        EXPECT_TRUE(reader.skip(6));
        EXPECT_EQ(reader.readMap(2, true), (Map{{"a", "1"}, {"b", ""}}));
        EXPECT_EQ(reader.line(), QStringLiteral("text"));
        EXPECT_EQ(reader.readMap(1, false), (Map{{"k", "v"}}));
        EXPECT_EQ(reader.lastLine(), QByteArray("v"));
        EXPECT_EQ(reader.line(), QStringLiteral("short"));
        // Fewer entries than announced: none, and the stream stays framed.
        EXPECT_FALSE(reader.readMap(3, true));
        EXPECT_EQ(reader.takeFailure(), Failure::None);
        // A line cut by the end of the stream is no line.
        EXPECT_FALSE(reader.line());
        EXPECT_TRUE(reader.lastLine().isEmpty());
        EXPECT_EQ(reader.takeFailure(), Failure::Ended);
        EXPECT_EQ(reader.takeFailure(), Failure::None);
    }
}

TEST(LineReader, HostileSizesAreRefusedBeforeTheyAreRead) {
    const QByteArray longLine(Dovel::Limits::MaxLineBytes + 1, 'x');
    const QByteArray textLine(Dovel::Limits::MaxLineBytes - 1, 'k');
    const int pairs = Dovel::Limits::MaxMapBlockBytes / (2 * textLine.size()) + 1;
    QByteArray textMap;
    for (int i = 0; i < pairs; ++i)
        textMap += textLine + "\n" + textLine + "\n";

    // Rejected: a guard refused the size before it sized anything; Ended: the peer left.
    enum Op { Line, Data, Skip, BinaryMap, TextMap };
    struct Case {
        const char* name;
        Op op;
        int size;
        QByteArray bytes;
        Failure failure;
    };
    const Case cases[] = {
        {"endless line", Line, 0, longLine, Failure::Rejected},
        {"huge read", Data, 2000000000, "abc", Failure::Rejected},
        {"huge skip", Skip, 2000000000, "abc", Failure::Rejected},
        {"huge map count", BinaryMap, 2000000000, Block, Failure::Rejected},
        {"negative map count", BinaryMap, -1, Block, Failure::Rejected},
        // One byte over the block limit, far below what a plain read may take.
        {"block over its limit", BinaryMap, 1, QByteArray::fromHex("0100000001000001"),
         Failure::Rejected},
        {"block shorter than its length item", BinaryMap, 1,
         QByteArray::fromHex("0100000004000000"), Failure::Rejected},
        {"length item of the wrong type", BinaryMap, 1, QByteArray::fromHex("0500000008000000"),
         Failure::Rejected},
        {"text map past the block limit", TextMap, pairs + 1, textMap, Failure::Rejected},
        {"read cut short", Data, 100, "only a few", Failure::Ended}, // and "after\n"
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeSource source(c.bytes + "after\n", 65536);
        Dovel::LineReader reader(source);
        bool ok = false;
        switch (c.op) {
        case Line:
            ok = bool(reader.line());
            break;
        case Data:
            ok = bool(reader.readData(c.size));
            break;
        case Skip:
            ok = reader.skip(c.size);
            break;
        case BinaryMap:
            ok = bool(reader.readMap(c.size, true));
            break;
        case TextMap:
            ok = bool(reader.readMap(c.size, false));
            break;
        }
        EXPECT_FALSE(ok);
        EXPECT_EQ(reader.takeFailure(), c.failure);
        if (c.failure == Failure::Rejected) {
            // Nothing more comes from the source until the reader is reset.
            const int reads = source.reads;
            EXPECT_FALSE(reader.skip(Dovel::Limits::MaxLineBytes));
            EXPECT_EQ(source.reads, reads);
        }
    }
}
