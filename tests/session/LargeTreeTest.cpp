// A client that connects to a large tree converges on it.
#include "SessionTestUtil.h"

#include "Basalt/Trace.h"
#include "Dovel/Limits.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace SessionTest;

namespace {
#ifdef DOVEL_SANITIZED
constexpr int AttributeCount = 10000; // the sanitizers make every step several times slower
#else
constexpr int AttributeCount = 100000;
#endif
} // namespace

TEST(LargeTree, AClientConvergesOnAHundredThousandAttributes) {
    Side master("master");
    Side mirror("mirror");
    master.run([&] {
        for (int i = 0; i < AttributeCount; ++i) {
            auto* a = new Tessel::AttributeT<int32_t>();
            a->setValue(i, L2);
            master.node.addDeepAttribute(
                "group" + QByteArray::number(i / 1000) + "/value" + QByteArray::number(i), a);
        }
    });
    Dovel::SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    Dovel::SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());

    // Cheap progress check first, the full comparison once the counts agree.
    ASSERT_TRUE(waitUntil([&] { return attributeCount(mirror) == AttributeCount; }, 60000))
        << attributeCount(mirror);
    ASSERT_TRUE(waitSame(master, mirror, 30000));
    const QByteArray last = "group" + QByteArray::number((AttributeCount - 1) / 1000) + "/value" +
                            QByteArray::number(AttributeCount - 1);
    int32_t value = -1;
    mirror.driver.call([&] {
        if (auto* a = typed<int32_t>(mirror.node, last))
            value = a->value();
    });
    EXPECT_EQ(value, AttributeCount - 1);
    EXPECT_EQ(client.stats().bundlesFailed.load(), 0u);
}

// One pass whose changes switch kind at every step is sent as more bundles than a peer
// takes in one batch; it must still arrive whole, in the same session.
TEST(LargeTree, APassOfMoreBundlesThanABatchHoldsArrivesWhole) {
    constexpr int Steps = 40000; // two kinds per step: 80,000 bundles in one pass
    Side master("master");
    Side mirror("mirror");
    master.run([&] {
        for (int i = 0; i < Steps; ++i) {
            for (const char* group : {"kept/v", "gone/v"}) {
                auto* a = new Tessel::AttributeT<int32_t>();
                a->setValue(0, L2);
                master.node.addDeepAttribute(group + QByteArray::number(i), a);
            }
        }
    });
    Dovel::SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    Dovel::SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitUntil([&] { return attributeCount(mirror) == 2 * Steps; }, 60000));

    Basalt::TraceCapture log;
    master.run([&] {
        auto* gone = Tessel::asNode(master.node.attribute("gone"));
        for (int i = 0; i < Steps; ++i) {
            typed<int32_t>(master.node, "kept/v" + QByteArray::number(i))->setValue(i + 1, L2);
            gone->deleteAttribute(gone->attribute("v" + QByteArray::number(i)));
        }
    });
    ASSERT_TRUE(waitUntil([&] { return attributeCount(mirror) == Steps; }, 60000))
        << attributeCount(mirror) << "\n"
        << log.dump().toStdString();
    EXPECT_TRUE(waitSame(master, mirror, 30000));
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
}

// A value too large for any bundle a peer takes is not sent: the attribute is announced
// without it, the error is logged, and the rest of the tree keeps travelling in the same
// session (a bundle the peer refused would end the session, and every resync with it).
TEST(LargeTree, AValueTooLargeForABundleIsNotSentAndTheSessionGoesOn) {
    Side master("master");
    Side mirror("mirror");
    const QString huge(Dovel::Limits::MaxBundlePayloadBytes, QChar('x'));
    master.run([&] {
        auto* small = new Tessel::AttributeT<int32_t>();
        small->setValue(1, L2);
        master.node.addDeepAttribute("small/v", small);
        auto* big = new Tessel::AttributeT<QString>();
        big->setValue(huge, L2);
        master.node.addDeepAttribute("big/text", big);
    });
    Basalt::TraceCapture log;
    Dovel::SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    Dovel::SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitUntil([&] { return attributeCount(mirror) == 2; }, 30000));
    EXPECT_EQ(log.count("NodeChangeSender::sendAdded # The value of 'big/text' takes 67108868 "
                        "bytes, more than a bundle may carry; it is not sent",
                        Basalt::Trace::Error),
              1)
        << log.dump().left(2000).toStdString();

    // A change too large is dropped the same way; smaller values travel again.
    master.run([&] {
        typed<QString>(master.node, "big/text")->setValue(huge + "y", L2);
        typed<int32_t>(master.node, "small/v")->setValue(2, L2);
    });
    ASSERT_TRUE(waitUntil([&] {
        int32_t value = 0;
        mirror.driver.call([&] { value = typed<int32_t>(mirror.node, "small/v")->value(); });
        return value == 2;
    }));
    EXPECT_EQ(log.count("NodeChangeSender::sendChanged # The value of 'big/text' takes 67108872 "
                        "bytes, more than a bundle may carry; it is not sent",
                        Basalt::Trace::Error),
              1);
    master.run([&] { typed<QString>(master.node, "big/text")->setValue("small again", L2); });
    EXPECT_TRUE(waitSame(master, mirror, 30000));
    EXPECT_EQ(client.stats().sessionsStarted.load(), 1u);
    EXPECT_EQ(log.count("processDovel2", Basalt::Trace::Warning), 0);
}
