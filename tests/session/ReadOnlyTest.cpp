// A read-only server over loopback TCP: a client mirrors the tree but its changes,
// removals, additions and events are refused, except where a writable pattern allows
// them, and its copy is put back to the server's.
#include "SessionHarness.h"

#include "Basalt/BinaryData.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace SessionHarness;
using Dovel::SessionClient;
using Dovel::SessionServer;
using Tessel::AttributeT;

TEST(ReadOnly, AClientsRefusedChangesArePutBackAndWritablePathsStillChange) {
    Side master("master");
    Side mirror("mirror");
    master.run([&] {
        for (const char* path : {"scene/a", "scene/b", "ui/zoom"}) {
            auto* a = new AttributeT<float>();
            a->setValue(1.5f, L2);
            master.node.addDeepAttribute(path, a);
        }
    });
    std::atomic<int> pokes{0};
    std::atomic<int> clicks{0};
    master.node.eventAddListenerBd(
        "poke", [&](Basalt::BinaryData&) { ++pokes; }, Tessel::Node::Direct);
    master.node.eventAddListenerBd(
        "ui/click", [&](Basalt::BinaryData&) { ++clicks; }, Tessel::Node::Direct);
    SessionServer::Options options;
    options.readOnly = true;
    options.writable = QStringList{"ui/**"};
    SessionServer server(master.node, &master.driver, options);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, mirror));
    EXPECT_EQ(server.stats().changesRefused.load(), 0u);

    // A change is refused and the client's copy goes back to the server's value; a
    // writable path changes as usual.
    mirror.run([&] {
        typed<float>(mirror.node, "scene/a")->setValue(42.0f, L2);
        typed<float>(mirror.node, "ui/zoom")->setValue(3.0f, L2);
    });
    ASSERT_TRUE(waitUntil([&] { return floatAt(master, "ui/zoom") == 3.0f; }));
    EXPECT_TRUE(waitUntil([&] { return floatAt(mirror, "scene/a") == 1.5f; }));
    EXPECT_EQ(floatAt(master, "scene/a"), 1.5f);

    // A removal is refused and the attribute comes back; an addition stays the client's.
    mirror.run([&] {
        auto* scene = dynamic_cast<Tessel::Node*>(mirror.node.attribute("scene"));
        ASSERT_TRUE(scene && scene->deleteAttribute(scene->attribute("b")));
        auto* extra = new AttributeT<float>();
        extra->setValue(7.0f, L2);
        mirror.node.addDeepAttribute("scene/extra", extra);
    });
    EXPECT_TRUE(waitUntil([&] { return floatAt(mirror, "scene/b") == 1.5f; }));

    // Events: only the writable one reaches the server.
    mirror.run([&] {
        Basalt::BinaryData none;
        mirror.node.eventProcess("poke", none);
        mirror.node.eventProcess("ui/click", none);
    });
    ASSERT_TRUE(waitUntil([&] { return clicks.load() == 1; }));
    EXPECT_TRUE(waitUntil([&] { return server.stats().changesRefused.load() >= 4u; }));
    EXPECT_EQ(pokes.load(), 0);
    EXPECT_FALSE(hasPath(master, "scene/extra"));
    EXPECT_EQ(floatAt(master, "scene/a"), 1.5f);
    EXPECT_EQ(floatAt(master, "scene/b"), 1.5f);
    EXPECT_EQ(attributeCount(master), 3);
}
