// The handshake module and the symbol exchange: what a session sends first, the
// replies, and how received commands and symbols are read.
#include "BundleTestUtil.h"

#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::failure;
using BundleTest::packet;
using BundleTest::pass;
using BundleTest::pastEnd;
using BundleTest::RecordingReceiver;
using BundleTest::TestSender;

namespace {

void dispatch(BundleDispatcher& d, const QByteArray& bytes) {
    const Bundle b(bytes);
    BundleReader r(b);
    d.dispatchBundle(r);
}

} // namespace

TEST(Handshake, FreshSessionFirstOutputPass) {
    Dovel::PeerSymbols registry;
    BundleDispatcher d;
    d.addModule(std::make_shared<SymbolRegistryReceiver>(registry));
    auto sender = std::make_shared<TestSender>();
    d.addSender(sender);
    EXPECT_EQ(sender->symbolType(), 1u);
    EXPECT_EQ(sender->newType, 2u);
    EXPECT_EQ(sender->updateType, 3u);
    EXPECT_EQ(sender->removeType, 4u);
    EXPECT_EQ(sender->eventType, 5u);
    EXPECT_EQ(d.resolveMessageType(ModuleNames::AttributeUpdate), 3u); // no second request
    EXPECT_EQ(d.resolveMessageType(ModuleNames::Handshake), 0u);

    const std::vector<Bundle> out = pass(d);
    ASSERT_EQ(out.size(), 1u);
    Bytes expected;
    expected.word(376).word(0).word(1).word(0); // payload size, type 0, sequence 1, nothing acked
    expected.word(64).str("info").word(2);
    expected.str("application").str("Dovel").str("version").str("2.6.1");
    // "load-module" number, name, empty map
    expected.word(56).str("load-module").word(1).str("Quillon.Dovel.SymbolRegistry").word(0);
    expected.word(56).str("load-module").word(2).str("Quillon.Dovel.AttributeNew").word(0);
    expected.word(60).str("load-module").word(3).str("Quillon.Dovel.AttributeUpdate").word(0);
    expected.word(60).str("load-module").word(4).str("Quillon.Dovel.AttributeRemove").word(0);
    expected.word(56).str("load-module").word(5).str("Quillon.Dovel.OneWayEvent").word(0);
    EXPECT_EQ(out[0].packet().toHex(), expected.data().toHex());
    EXPECT_EQ(sender->prepared, 1);
    EXPECT_EQ(d.outputSequence(), 2u);

    // Nothing queued: the next pass emits nothing and the counter stays.
    EXPECT_TRUE(pass(d).empty());
    EXPECT_EQ(d.outputSequence(), 2u);
    EXPECT_EQ(sender->prepared, 2);

    // A request after the first pass takes the next number and travels alone.
    EXPECT_EQ(d.resolveMessageType("Other.Module"), 6u);
    const std::vector<Bundle> later = pass(d);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(
        later[0].packet(),
        packet(0, 2, 0,
               Bytes().word(40).str("load-module").word(6).str("Other.Module").word(0).data()));
}

TEST(Handshake, ReceiverSkipsUnknownCommandsByLength) {
    Basalt::TraceCapture capture;
    BundleDispatcher d;
    auto news = std::make_shared<RecordingReceiver>(ModuleNames::AttributeNew);
    d.addModule(news);
    pass(d);

    // Length 17: the name (12 bytes) and 5 bytes of arguments, padded to 8 when skipped.
    Bytes payload;
    payload.word(17).str("hello").word(0xAAAAAAAAu).word(0xBBBBBBBBu);
    payload.word(72).str("load-module").word(3).str("Quillon.Dovel.AttributeNew");
    payload.word(1).str("k").str("v");
    dispatch(d, packet(0, 1, 0, payload.data()));
    EXPECT_EQ(capture.count("HandshakeReceiver::handleBundle # Unknown command 'hello'",
                            Basalt::Trace::Warning),
              1)
        << capture.dump().toStdString();
    ASSERT_EQ(news->loadedParams.size(), 1u);
    EXPECT_EQ(news->loadedParams[0].value(QStringLiteral("k")), QStringLiteral("v"));
    std::vector<Bundle> out = pass(d);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].packet().mid(16), BundleTest::reply(108, "ok", "Quillon.Dovel.AttributeNew",
                                                         "Module loaded successfully"));
    dispatch(d, packet(3, 2, 0, Bytes().word(42).data()));
    ASSERT_EQ(news->payloads.size(), 1u);

    // An unknown command whose name alone overran its declared length.
    capture.clear();
    EXPECT_EQ(failure<std::out_of_range>(
                  [&] { dispatch(d, packet(0, 3, 0, Bytes().word(0).str("x").data())); }),
              "HandshakeReceiver::handleBundle # Corrupted message");
    EXPECT_TRUE(capture.contains("HandshakeReceiver::handleBundle # Unknown command 'x'"));
    EXPECT_EQ(d.lastReceivedSequence(), 2u); // a throwing bundle is not counted

    // A truncated command: what came before it stays in effect.
    auto updates = std::make_shared<RecordingReceiver>(ModuleNames::AttributeUpdate);
    d.addModule(updates);
    Bytes truncated;
    truncated.word(60).str("load-module").word(4).str("Quillon.Dovel.AttributeUpdate").word(0);
    // a name of 100 bytes that is not there
    truncated.word(60).str("load-module").word(5).word(100);
    EXPECT_EQ(failure<std::out_of_range>([&] { dispatch(d, packet(0, 4, 0, truncated.data())); }),
              pastEnd);
    EXPECT_EQ(updates->loadedParams.size(), 1u);
    out = pass(d);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].packet().mid(16), BundleTest::reply(112, "ok", "Quillon.Dovel.AttributeUpdate",
                                                         "Module loaded successfully"));
}

TEST(Handshake, SymbolRegistryReceiverDefinesPairsUntilTruncation) {
    Dovel::PeerSymbols registry;
    SymbolRegistryReceiver receiver(registry);
    EXPECT_EQ(receiver.name(), QByteArray("Quillon.Dovel.SymbolRegistry"));
    Bytes symbols;
    symbols.word(7).str("root/a").word(9).str(""); // the root path itself
    symbols.word(11).word(10).raw("abc");          // 3 of the 10 bytes announced
    const Bundle b(packet(1, 1, 0, symbols.data()));
    BundleReader reader(b);
    EXPECT_EQ(failure<std::out_of_range>([&] { receiver.handleBundle(reader); }), pastEnd);
    EXPECT_EQ(registry.lookup(7u), QByteArray("root/a"));
    EXPECT_FALSE(registry.lookup(9u).isNull());
    EXPECT_TRUE(registry.lookup(9u).isEmpty());
    EXPECT_TRUE(registry.lookup(11u).isNull());
}
