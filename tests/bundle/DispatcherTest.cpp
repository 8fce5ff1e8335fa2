// Routing by message type, unknown types remembered up to a limit, module binding with
// its replies byte for byte, and the output pass.
#include "BundleTestUtil.h"

#include "Dovel/Limits.h"

#include "Basalt/Trace.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Dovel;
using BundleTest::Bytes;
using BundleTest::packet;
using BundleTest::pass;
using BundleTest::RecordingReceiver;
using BundleTest::TestSender;

namespace {

void dispatch(BundleDispatcher& d, const Bundle& b) {
    BundleReader r(b);
    d.dispatchBundle(r);
}

} // namespace

TEST(Dispatcher, UnknownTypesAndLastReceived) {
    Basalt::TraceCapture capture;
    BundleDispatcher d;
    EXPECT_EQ(d.lastReceivedSequence(), 0u);
    EXPECT_EQ(d.outputSequence(), 1u);
    const char* const unknown9 = "BundleDispatcher::dispatchBundle # Unknown bundle type 9";

    dispatch(d, Bundle(packet(9, 5, 0, Bytes().word(1).data())));
    EXPECT_EQ(capture.count(unknown9, Basalt::Trace::Warning), 1);
    EXPECT_EQ(d.lastReceivedSequence(), 5u);
    dispatch(d, Bundle(packet(9, 6, 0, {})));
    EXPECT_EQ(capture.count(unknown9), 1);   // once per type
    EXPECT_EQ(d.lastReceivedSequence(), 6u); // dropped bundles still count
    dispatch(d, Bundle(packet(10, 7, 0, {})));
    EXPECT_EQ(capture.count("BundleDispatcher::dispatchBundle # Unknown bundle type 10"), 1);
    EXPECT_EQ(capture.lines().size(), 2);
    EXPECT_EQ(d.lastReceivedSequence(), 7u);

    // The null entry of a reported type does not block binding it later.
    auto news = std::make_shared<RecordingReceiver>(ModuleNames::AttributeNew);
    d.addModule(news);
    d.loadModule(9, QStringLiteral("Quillon.Dovel.AttributeNew"), {});
    dispatch(d, Bundle(packet(9, 8, 0, Bytes().str("abc").data())));
    ASSERT_EQ(news->payloads.size(), 1u);
    EXPECT_EQ(news->payloads[0], Bytes().str("abc").data());
    EXPECT_EQ(d.lastReceivedSequence(), 8u);

    // A receiver that throws: the exception passes through, the bundle is not counted.
    news->throwOnBundle = true;
    EXPECT_THROW(dispatch(d, Bundle(packet(9, 9, 0, {}))), std::invalid_argument);
    EXPECT_EQ(d.lastReceivedSequence(), 8u);

    // Output carries the last received number in header word 3.
    const std::vector<Bundle> out = pass(d);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0].headerWord(3), 8u);
}

TEST(Dispatcher, UnknownTypesAreRememberedUpToALimit) {
    Basalt::TraceCapture capture;
    BundleDispatcher d;
    const uint32_t first = 1000; // above every type a session binds
    const uint32_t limit = uint32_t(Limits::MaxUnknownBundleTypes);
    for (uint32_t i = 0; i < limit + 5; ++i)
        dispatch(d, Bundle(packet(first + i, i + 1, 0, {})));
    EXPECT_EQ(capture.count("BundleDispatcher::dispatchBundle # Unknown bundle type",
                            Basalt::Trace::Warning),
              int(limit));
    EXPECT_EQ(capture.count(QStringLiteral("Unknown bundle type %1").arg(first + limit)), 0);
    EXPECT_EQ(d.lastReceivedSequence(), limit + 5); // dropped bundles still count
}

TEST(Dispatcher, LoadModuleReplies) {
    BundleDispatcher d;
    auto news = std::make_shared<RecordingReceiver>(ModuleNames::AttributeNew);
    auto updates = std::make_shared<RecordingReceiver>(ModuleNames::AttributeUpdate);
    d.addModule(news);
    d.addModule(updates);
    pass(d);

    const QMap<QString, QString> params{{QStringLiteral("p"), QStringLiteral("1")}};
    const QString newName = QStringLiteral("Quillon.Dovel.AttributeNew");
    d.loadModule(7, newName, params);
    d.loadModule(7, newName, {});
    d.loadModule(8, newName, {});
    d.loadModule(7, QStringLiteral("Quillon.Dovel.AttributeUpdate"), {});
    d.loadModule(7, QStringLiteral("Never.Offered"), {});
    d.loadModule(0, QStringLiteral("Quillon.Dovel.AttributeUpdate"), {});
    d.loadModule(0, QStringLiteral("Quillon.Dovel.Handshake"), {});
    d.loadModule(8, QStringLiteral("Never.Offered"), {});
    d.loadModule(8, QStringLiteral("Quillon.Dovel.AttributeUpdate"), {});

    ASSERT_EQ(news->loadedParams.size(), 2u); // bound, then re-bound
    EXPECT_EQ(news->loadedParams[0], params);
    EXPECT_TRUE(news->loadedParams[1].isEmpty());
    EXPECT_EQ(updates->loadedParams.size(), 1u);

    const QByteArray expected =
        BundleTest::reply(108, "ok", "Quillon.Dovel.AttributeNew", "Module loaded successfully") +
        BundleTest::reply(108, "ok", "Quillon.Dovel.AttributeNew", "Module reloaded successfully") +
        BundleTest::reply(136, "error", "Quillon.Dovel.AttributeNew",
                          "Tried to reload module with different message type") +
        BundleTest::reply(116, "error", "Quillon.Dovel.AttributeUpdate",
                          "Message type already in use") +
        BundleTest::reply(100, "error", "Never.Offered", "Message type already in use") +
        BundleTest::reply(104, "error", "Quillon.Dovel.AttributeUpdate", "Not implemented") +
        BundleTest::reply(104, "ok", "Quillon.Dovel.Handshake", "Module reloaded successfully") +
        BundleTest::reply(88, "error", "Never.Offered", "Module not found") +
        BundleTest::reply(112, "ok", "Quillon.Dovel.AttributeUpdate", "Module loaded successfully");
    const std::vector<Bundle> out = pass(d);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].packet().toHex(), packet(0, 2, 0, expected).toHex());

    // Bound modules receive their own types only.
    dispatch(d, Bundle(packet(7, 1, 0, Bytes().word(70).data())));
    dispatch(d, Bundle(packet(8, 2, 0, Bytes().word(80).data())));
    ASSERT_EQ(news->payloads.size(), 1u);
    ASSERT_EQ(updates->payloads.size(), 1u);
    EXPECT_EQ(news->payloads[0], Bytes().word(70).data());
    EXPECT_EQ(updates->payloads[0], Bytes().word(80).data());
}

TEST(Dispatcher, SequenceGrowsPerBundleAndSymbolPayload) {
    BundleDispatcher d;
    auto sender = std::make_shared<TestSender>();
    d.addSender(sender);
    pass(d);
    EXPECT_EQ(d.outputSequence(), 2u);
    dispatch(d, Bundle(packet(77, 41, 0, {}))); // something received, to be acknowledged

    sender->symbols = {{7, "root/a"}, {9, "root/bcde"}};
    sender->updates = {Bytes().word(7).word(1).data(), Bytes().word(9).word(2).data()};
    const std::vector<Bundle> out = pass(d);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(d.outputSequence(), 5u);
    // 36 payload bytes, symbol registry type, sequence 2, acknowledged 41, then the pairs
    // 7 "root/a" and 9 "root/bcde".
    EXPECT_EQ(out[0].packet().toHex(),
              QByteArray::fromHex("24000000 01000000 02000000 29000000"
                                  "07000000 06000000 726f6f742f610000"
                                  "09000000 09000000 726f6f742f62636465000000")
                  .toHex());
    EXPECT_EQ(out[1].packet(), packet(3, 3, 41, Bytes().word(7).word(1).data()));
    EXPECT_EQ(out[2].packet(), packet(3, 4, 41, Bytes().word(9).word(2).data()));
}
