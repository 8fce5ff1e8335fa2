// A large tree over loopback TCP: one pass whose changes switch kind at every step is
// sent as more bundles than a peer takes in one batch; it must still arrive whole, in
// the same session.
#include "SessionHarness.h"

#include <gtest/gtest.h>

using namespace SessionTest;

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
