// NodeChangeSender and its compressor: what one period of changes turns into on the
// wire, byte for byte, and where a pass past the bundle size is cut.
#include "SessionHarness.h"

#include "bundle/BundleTestUtil.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/AttributeChangeCompressor.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeAlias.h"
#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

using BundleTest::Bytes;
using BundleTest::packet;
using Dovel::AttributeChangeCompressor;
using Dovel::Bundle;
using Dovel::ChangeData;
using Dovel::RemoteNode;
using SessionHarness::ev;
using SessionHarness::Session;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

constexpr auto Added = Dovel::NodeWatcher::AttributeAdded;
constexpr auto Removed = Dovel::NodeWatcher::AttributeRemoved;
constexpr auto Changed = Dovel::NodeWatcher::AttributeChanged;
using SessionHarness::L2;

// The outgoing numbers a session binds, in the order its sender asks for them.
using namespace SessionHarness::MessageTypes;

std::vector<ChangeData> compress(const std::vector<Dovel::NodeWatcher::Event>& events) {
    AttributeChangeCompressor compressor;
    std::vector<ChangeData> out{{9, 9, 9}}; // replaced, not appended to
    compressor.compress(events, out);
    return out;
}

} // namespace

namespace Dovel {
inline std::ostream& operator<<(std::ostream& out, const ChangeData& c) {
    return out << "{" << c.type << "," << c.symbol << "," << c.withValue << "}";
}
} // namespace Dovel

TEST(ChangeCompressor, KeepsOneEntryPerAttributeAndKind) {
    using V = std::vector<ChangeData>;
    // Added and removed in one period: the peer never hears of it.
    EXPECT_EQ(compress({ev(Added, 1), ev(Changed, 1), ev(Removed, 1)}), V{});
    // Added then changed twice: one addition that carries the value.
    EXPECT_EQ(compress({ev(Added, 1), ev(Changed, 1), ev(Changed, 1)}), (V{{Added, 1, 1}}));
    // An addition without a later change carries no value.
    EXPECT_EQ(compress({ev(Added, 1)}), (V{{Added, 1, 0}}));
    // Two changes: the last one stands, at its place in time.
    EXPECT_EQ(compress({ev(Changed, 1), ev(Changed, 2), ev(Changed, 1)}),
              (V{{Changed, 2, 0}, {Changed, 1, 0}}));
    // A change before a removal is superseded; a removal of a known attribute stays.
    EXPECT_EQ(compress({ev(Changed, 1), ev(Removed, 1)}), (V{{Removed, 1, 0}}));
    // Removed and added again: both go, and the new addition carries the later value.
    EXPECT_EQ(compress({ev(Removed, 1), ev(Added, 1), ev(Changed, 1)}),
              (V{{Removed, 1, 0}, {Added, 1, 1}}));
    // The same addition reported twice is announced once.
    EXPECT_EQ(compress({ev(Added, 1), ev(Added, 2), ev(Added, 1)}),
              (V{{Added, 2, 0}, {Added, 1, 0}}));
    // Additions in rising and in other orders all stand, in order.
    EXPECT_EQ(compress({ev(Added, 1), ev(Added, 2), ev(Added, 7)}),
              (V{{Added, 1, 0}, {Added, 2, 0}, {Added, 7, 0}}));
    EXPECT_EQ(compress({ev(Added, 7), ev(Added, 2), ev(Added, 3)}),
              (V{{Added, 7, 0}, {Added, 2, 0}, {Added, 3, 0}}));

    // One compressor, period after period: nothing of one period stays for the next.
    AttributeChangeCompressor reused;
    V out;
    for (int period = 0; period < 2; ++period) {
        reused.compress({ev(Added, 3), ev(Added, 4), ev(Added, 3)}, out);
        EXPECT_EQ(out, (V{{Added, 4, 0}, {Added, 3, 0}}));
        reused.compress({ev(Added, 3), ev(Changed, 3), ev(Changed, 4)}, out);
        EXPECT_EQ(out, (V{{Added, 3, 1}, {Changed, 4, 0}}));
    }
}

TEST(ChangeSender, WritesSymbolsThenRunsOfEqualKindByteForByte) {
    RemoteNode node(nullptr, "root");
    auto* a = new AttributeT<int>(nullptr, "", 7);
    auto* b = new AttributeT<QString>(nullptr, "", "hi");
    node.addDeepAttribute("n/a", a);
    node.addDeepAttribute("n/id", new AttributeT<int>(nullptr, "", 5)); // this side's own
    node.addDeepAttribute("n/b", b);
    Session session(node, false, true);
    const uint32_t symA = node.symbolRegistry().lookup("n/a");
    const uint32_t symB = node.symbolRegistry().lookup("n/b");

    std::vector<Bundle> out = session.output();
    ASSERT_EQ(out.size(), 3u); // handshake, symbols, AttributeNew
    EXPECT_EQ(out[0].messageType(), 0u);
    EXPECT_EQ(out[1].packet(), packet(SymbolsType, 2, 0,
                                      Bytes().word(symA).str("n/a").word(symB).str("n/b").data()));
    Bytes news; // symbol, type code, value size, value count, value
    news.word(symA).word(9).word(4).word(1).word(7).word(symB).word(35).word(0).word(1).str("hi");
    EXPECT_EQ(out[2].packet(), packet(NewType, 3, 0, news.data()));

    // One period: change, change, removal, change. Runs of one kind share a bundle.
    auto* c = new AttributeT<float>(nullptr, "", 1.0f);
    node.addDeepAttribute("n/c", c);
    ASSERT_EQ(session.output().size(), 2u); // announces c: symbol 4, AttributeNew 5
    a->set(8, L2);
    b->set(QStringLiteral("yo"), L2);
    delete c;
    a->set(9, L2);
    const uint32_t symC = node.symbolRegistry().lookup("n/c");
    out = session.output();
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].packet(), packet(UpdateType, 6, 0, Bytes().word(symB).str("yo").data()));
    EXPECT_EQ(out[1].packet(), packet(RemoveType, 7, 0, Bytes().word(symC).data()));
    EXPECT_EQ(out[2].packet(), packet(UpdateType, 8, 0, Bytes().word(symA).word(9).data()));
    EXPECT_TRUE(session.output().empty());

    // A one-way event: its name is announced first; data padded to 4.
    Basalt::BinaryData data = Basalt::BinaryData::fromByteArray("12345");
    node.eventProcess("go", data);
    out = session.output();
    ASSERT_EQ(out.size(), 2u);
    const uint32_t symGo = node.symbolRegistry().lookup("go");
    EXPECT_EQ(out[0].packet(), packet(SymbolsType, 9, 0, Bytes().word(symGo).str("go").data()));
    EXPECT_EQ(out[1].packet(),
              packet(EventType, 10, 0, Bytes().word(symGo).word(5).hex("3132333435000000").data()));

    // An event too large for any bundle a peer takes is not sent (logged); the next is.
    Basalt::TraceCapture log;
    const int tooLarge = Dovel::Limits::MaxSentValueBytes + 1;
    Basalt::BinaryData big = Basalt::BinaryData::fromByteArray(QByteArray(tooLarge, 'b'));
    node.eventProcess("go", big);
    Basalt::BinaryData small = Basalt::BinaryData::fromByteArray("12345");
    node.eventProcess("go", small);
    out = session.output();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].packet(),
              packet(EventType, 11, 0, Bytes().word(symGo).word(5).hex("3132333435000000").data()));
    EXPECT_EQ(log.count("", Basalt::Trace::Error), 1);
}

TEST(ChangeSender, APassPastTheBundleSizeGoesOnInFurtherBundlesOfItsKind) {
    // Long names and values: the first pass's names and its additions, and then a round
    // of updates, each fill more than one bundle.
    constexpr int Count = 20000;
    const QByteArray stem(96, 'p');
    const auto nameOf = [&](int i) { return stem + QByteArray::number(i); };
    const auto valueOf = [](const char* prefix, int i) {
        return QString::fromLatin1(prefix) + QStringLiteral("%1").arg(i, 60, 10, QLatin1Char('0'));
    };
    RemoteNode left(nullptr, "left");
    std::vector<AttributeT<QString>*> values;
    for (int i = 0; i < Count; ++i) {
        values.push_back(new AttributeT<QString>(nullptr, "", valueOf("value-", i)));
        left.addDeepAttribute("n/" + nameOf(i), values.back());
    }
    Session a(left, true, true);
    RemoteNode right(nullptr, "right");
    Session b(right, false, true);

    // Numbered one after another; every bundle but the last of a run ends with the item
    // that reached the size. The records hold the bundle that carried them.
    const auto runs = [](const std::vector<Bundle>& out) {
        std::map<uint32_t, std::vector<uint32_t>> payloads; // by message type
        for (size_t i = 0; i < out.size(); ++i) {
            if (i > 0) {
                EXPECT_EQ(out[i].sequenceNumber(), out[i - 1].sequenceNumber() + 1);
            }
            payloads[out[i].messageType()].push_back(out[i].size() - Bundle::HeaderSize);
        }
        return payloads;
    };
    const auto expectCut = [](const std::vector<uint32_t>& payloads, uint32_t item) {
        ASSERT_GE(payloads.size(), 2u);
        for (size_t i = 0; i + 1 < payloads.size(); ++i) {
            EXPECT_GE(payloads[i], uint32_t(Dovel::Limits::SentBundleBytes));
            EXPECT_LT(payloads[i], uint32_t(Dovel::Limits::SentBundleBytes) + item);
        }
    };
    const auto sentIn = [&](int i) {
        const uint32_t symbol = left.symbolRegistry().lookup("n/" + nameOf(i));
        return a.storage.findByLocalSymbol(symbol)->lastSentSequence;
    };
    const auto rightHolds = [&](const char* prefix) {
        Attribute* folder = right.attribute("n");
        int matching = 0;
        for (int i = 0; folder && i < Count; ++i) {
            auto* held = dynamic_cast<AttributeT<QString>*>(folder->attribute(nameOf(i)));
            matching += held && held->value() == valueOf(prefix, i);
        }
        return matching;
    };

    std::vector<Bundle> out = a.output();
    auto payloads = runs(out);
    expectCut(payloads[SymbolsType], 112); // symbol, length, a name of up to 103 bytes
    expectCut(payloads[NewType], 88);      // four words, a length, 66 bytes
    const auto firstNew = std::find_if(out.begin(), out.end(),
                                       [](const Bundle& b) { return b.messageType() == NewType; });
    ASSERT_NE(firstNew, out.end());
    EXPECT_TRUE(std::none_of(firstNew, out.end(),
                             [](const Bundle& b) { return b.messageType() == SymbolsType; }));
    EXPECT_EQ(sentIn(0), firstNew->sequenceNumber());
    EXPECT_EQ(sentIn(Count - 1), out.back().sequenceNumber());
    const std::vector<Bundle> back = b.output();
    b.input(out);
    a.input(back);
    SessionHarness::pump(a, b);
    EXPECT_EQ(rightHolds("value-"), Count);

    for (int i = 0; i < Count; ++i)
        values[size_t(i)]->set(valueOf("later-", i), L2);
    out = a.output();
    payloads = runs(out);
    ASSERT_EQ(payloads.size(), 1u);
    expectCut(payloads[UpdateType], 76); // symbol, length, 66 bytes
    EXPECT_EQ(sentIn(0), out.front().sequenceNumber());
    EXPECT_EQ(sentIn(Count - 1), out.back().sequenceNumber());
    b.input(out);
    EXPECT_EQ(rightHolds("later-"), Count);
}

TEST(ChangeSender, ALargePassNamesEachRunJustBeforeItsChanges) {
    // More additions than one run of a pass takes (65,536): each run goes out as its
    // names and then its changes, numbered one after another, although the names of a
    // run are written while the changes of the run before are; and the peer, which
    // holds a name only once announced, takes every attribute.
    constexpr int Count = 2 * 65536 + 100;
    RemoteNode left(nullptr, "left");
    for (int i = 0; i < Count; ++i)
        left.addDeepAttribute("g" + QByteArray::number(i / 1000) + "/a" + QByteArray::number(i),
                              new AttributeT<int32_t>(nullptr, "", i));
    Session a(left, true, true);
    RemoteNode right(nullptr, "right");
    Session b(right, false, true);

    const std::vector<Bundle> out = a.output();
    std::vector<uint32_t> kinds;
    for (size_t i = 0; i < out.size(); ++i) {
        if (i > 0) {
            EXPECT_EQ(out[i].sequenceNumber(), out[i - 1].sequenceNumber() + 1);
        }
        const uint32_t kind = out[i].messageType();
        if (kind != 0 && (kinds.empty() || kinds.back() != kind)) // 0: the handshake's
            kinds.push_back(kind);
    }
    EXPECT_EQ(kinds, (std::vector<uint32_t>{SymbolsType, NewType, SymbolsType, NewType, SymbolsType,
                                            NewType}));
    Basalt::TraceCapture log;
    b.core->process(out); // as a connection hands them over: what the peer sent is counted
    EXPECT_EQ(log.count("", Basalt::Trace::Error), 0);
    int held = 0;
    for (int i = 0; i < Count; i += 997) {
        auto* copy = dynamic_cast<AttributeT<int32_t>*>(Dovel::attributeAt(
            right, "g" + QByteArray::number(i / 1000) + "/a" + QByteArray::number(i)));
        held += copy && copy->value() == i;
    }
    EXPECT_EQ(held, (Count + 996) / 997);
}

TEST(ChangeSender, TheFirstPassAnnouncesWhatAnAliasShowsUnderTheAliasPath) {
    // An attribute reached through an alias (a node's or its own) goes out under the path
    // that reaches it there, beside the one of its own: the peer gets both.
    RemoteNode left(nullptr, "left");
    left.addDeepAttribute("real/x", new AttributeT<int32_t>(nullptr, "", 7));
    new Tessel::AttributeAlias(&left, "link", left.attribute("real"));
    new Tessel::AttributeAlias(&left, "lx", Dovel::attributeAt(left, "real/x"));
    left.processPendingAdditions();
    Session a(left, true, true);
    RemoteNode right(nullptr, "right");
    Session b(right, false, true);
    b.core->process(a.output());
    for (const char* path : {"real/x", "link/x", "lx"}) {
        SCOPED_TRACE(path);
        const Attribute* copy = Dovel::attributeAt(right, path);
        ASSERT_TRUE(copy);
        EXPECT_EQ(copy->asInt(), 7);
    }
}
