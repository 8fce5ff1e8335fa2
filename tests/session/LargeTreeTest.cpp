// A client that connects to a large tree converges on it.
#include "SessionTestUtil.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace SessionTest;

namespace {
#if defined(__SANITIZE_ADDRESS__)
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
