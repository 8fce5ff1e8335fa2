// Maps on the line protocol: the binary block for peers from 1.9.1 and the text form
// for older ones, byte for byte, and a connection reading the form of its peer's version.
#include "TransportTestUtil.h"

using namespace TransportTest;

namespace {

using Map = QMap<QString, QString>;

const Map sample() {
    return Map{{QStringLiteral("app"), QStringLiteral("x")},
               {QStringLiteral("v"), QStringLiteral("2.6")},
               {QString::fromUtf8("\xc3\xa9"), QString()}};
}

// buildMapBuffer("map", sample()) for a binary peer, written out by hand: the header
// line, then an int32 item holding the block's size (66, itself included), then each
// key and value as a string item (tag 5, u32 byte count, UTF-8 bytes), in key order.
QByteArray sampleBinary() {
    return QByteArray("map 3\n") +
           QByteArray::fromHex("01000000 42000000"
                               "05000000 03000000 617070 05000000 01000000 78" // app x
                               "05000000 01000000 76 05000000 03000000 322e36" // v 2.6
                               "05000000 02000000 c3a9 05000000 00000000");    // é
}

} // namespace

TEST(Maps, BinaryBlockByteForByte) {
    auto c = std::make_shared<Dovel::ConnectionThread>(nullptr, false);
    c->setRemoteVersion(1, 9, 1, QString());
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("map"), sample()).toHex(), sampleBinary().toHex());

    // An empty map is a header and a block holding only its length item.
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("info"), Map()),
              QByteArray("info 0\n") + QByteArray::fromHex("0100000008000000"));
}

TEST(Maps, TextFormForOlderPeers) {
    auto c = std::make_shared<Dovel::ConnectionThread>(nullptr, false);
    c->setRemoteVersion(1, 9, 0, QString());
    const Map map{{QStringLiteral("a\nb"), QStringLiteral("1")},
                  {QStringLiteral("c"), QStringLiteral("x\ny\n")}};
    EXPECT_EQ(c->buildMapBuffer(QStringLiteral("info"), map), QByteArray("info 2\nab\n1\nc\nxy\n"));
    // Before any handshake the peer's version is unknown (0.0.0): text as well.
    auto fresh = std::make_shared<Dovel::ConnectionThread>(nullptr, false);
    EXPECT_EQ(fresh->buildMapBuffer(QStringLiteral("m"), {{"k", "v"}}), QByteArray("m 1\nk\nv\n"));
}

TEST(Maps, ReadMapFromTextPeer) {
    LoggedIn link;
    ASSERT_TRUE(link.start(QByteArray()));
    ASSERT_EQ(link.accepted->remoteVersion(), QStringLiteral("1.9.0"));

    link.peer->send("map 2\nk1\nv1\r\nk2\n\nv2\nafter\n");
    ASSERT_TRUE(waitUntil([&] { return hooks(link.accepted).lines().size() == 1; }));
    EXPECT_EQ(hooks(link.accepted).lines(), QStringList{"after"});
    ASSERT_EQ(hooks(link.accepted).maps().size(), 1);
    EXPECT_EQ(hooks(link.accepted).maps()[0], (Map{{"k1", "v1"}, {"k2", "v2"}}));
}
