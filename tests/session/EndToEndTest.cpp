// A server and clients over loopback TCP, each side with its own RemoteNode and its own
// tree thread: changes both ways, additions and removals, events, a client that hangs
// up right after sending (another kept in step), an observer across a server restart,
// and sessions run by the host's update loop.
#include "SessionHarness.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Trace.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/session/SessionConnection.h"
#include "Tessel/UpdateLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <thread>
#include <tuple>

using namespace SessionTest;
using Dovel::SessionClient;
using Dovel::SessionServer;
using Tessel::AttributeT;

namespace {

// A server tree with a few float values under "scene".
void addScene(Side& side, int count) {
    side.run([&] {
        for (int i = 0; i < count; ++i) {
            auto* a = new AttributeT<float>();
            a->setValue(float(i) + 0.5f, L2);
            side.node.addDeepAttribute("scene/v" + QByteArray::number(i), a);
        }
    });
}

// The host's tree thread for trees without a driver: it waits a minute unless woken,
// so every change that arrives shows that queued work and local changes wake it.
class HostLoop {
public:
    HostLoop()
        : thread([this] {
              while (!stop.load())
                  Tessel::UpdateLoop::waitAndRun(60000);
          }) {}
    ~HostLoop() {
        stop.store(true);
        Tessel::UpdateLoop::wake();
        thread.join();
    }
    // Runs `f` on the host's tree thread and waits.
    void run(const std::function<void()>& f) {
        std::atomic<bool> done{false};
        Tessel::UpdateLoop::post([&] {
            f();
            done.store(true);
        });
        ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    }
    float floatAt(Dovel::RemoteNode& node, const QByteArray& path) {
        float value = std::numeric_limits<float>::quiet_NaN();
        run([&] {
            if (auto* a = typed<float>(node, path))
                value = a->value();
        });
        return value;
    }

private:
    std::atomic<bool> stop{false};
    std::thread thread;
};

// True once the update-loop hook has dropped every closed automatic core.
bool automaticCoresDropped() {
    return waitUntil([&] {
        Tessel::UpdateLoop::wake();
        return Dovel::BundleController::automaticCoreCount() == 0;
    });
}

} // namespace

TEST(EndToEnd, ChangesAdditionsAndRemovalsTravelBothWays) {
    Side master("master");
    Side mirror("mirror");
    addScene(master, 3);
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, mirror));

    setFloat(master, "scene/v1", 42.0f);
    EXPECT_TRUE(waitUntil([&] { return floatAt(mirror, "scene/v1") == 42.0f; }));
    setFloat(mirror, "scene/v2", -7.0f);
    EXPECT_TRUE(waitUntil([&] { return floatAt(master, "scene/v2") == -7.0f; }));
    // A burst of changes ends with the last value on both sides.
    for (int i = 0; i < 50; ++i)
        setFloat(mirror, "scene/v0", float(i));
    EXPECT_TRUE(waitUntil([&] { return floatAt(master, "scene/v0") == 49.0f; }));

    // Added on the server, then on the client.
    master.run([&] {
        auto* a = new AttributeT<QString>();
        a->setValue(QStringLiteral("from server"), L2);
        master.node.addDeepAttribute("extra/fromServer", a);
    });
    ASSERT_TRUE(waitUntil([&] { return hasPath(mirror, "extra/fromServer"); }));
    mirror.run([&] {
        auto* a = new AttributeT<int32_t>();
        a->setValue(17, L2);
        mirror.node.addDeepAttribute("extra/fromClient", a);
    });
    ASSERT_TRUE(waitUntil([&] { return hasPath(master, "extra/fromClient"); }));
    ASSERT_TRUE(waitSame(master, mirror));

    // Each side removes what it added; the peer's copy goes too.
    for (auto [side, peer, name] : {std::make_tuple(&master, &mirror, "fromServer"),
                                    std::make_tuple(&mirror, &master, "fromClient")}) {
        side->run([&] { delete at(side->node, QByteArray("extra/") + name); });
        EXPECT_TRUE(waitUntil([&] { return !hasPath(*peer, QByteArray("extra/") + name); }));
    }
    EXPECT_TRUE(waitSame(master, mirror)) << describe(snapshot(master)).constData() << "--\n"
                                          << describe(snapshot(mirror)).constData();
}

TEST(EndToEnd, OneWayAndSlicedEventsArriveOnceAndInOrder) {
    Side master("master");
    Side mirror("mirror");
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    SessionClient client(mirror.node, &mirror.driver);
    client.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitUntil([&] { return client.isConnected() && server.clientCount() == 1; }));

    std::mutex mutex;
    std::vector<QByteArray> received; // name: bytes
    for (const char* name : {"first", "big", "second"})
        mirror.node.eventAddListenerBd(
            name,
            [&, name](Basalt::BinaryData& data) {
                std::lock_guard<std::mutex> lock(mutex);
                received.push_back(name + (":" + data.toByteArray()));
            },
            Tessel::Node::Direct);
    // Events go out once the session has announced itself: wait for the first pass.
    ASSERT_TRUE(waitUntil([&] { return server.stats().bundlesSent.load() > 0; }));
    QByteArray big(1 << 20, '\0');
    for (int i = 0; i < big.size(); ++i)
        big[i] = char(i * 7);
    master.run([&] {
        Basalt::BinaryData first = Basalt::BinaryData::fromByteArray("1");
        master.node.eventProcess("first", first);
        Basalt::BinaryData bigData = Basalt::BinaryData::fromByteArray(big);
        master.node.eventProcessSlice("big", bigData, 64 * 1024);
        Basalt::BinaryData second = Basalt::BinaryData::fromByteArray("2");
        master.node.eventProcess("second", second);
    });
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return received.size() >= 3;
    }));
    int unfinished = -1;
    mirror.driver.call([&] { unfinished = mirror.node.sliceReassemblyCount(); });
    EXPECT_EQ(unfinished, 0);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(received, (std::vector<QByteArray>{"first:1", "big:" + big, "second:2"}));
}

TEST(EndToEnd, WhatAClientSendsJustBeforeItHangsUpReachesTheServerAndTheOtherClients) {
    Side master("master");
    Side leaving("leaving");
    Side staying("staying");
    addScene(master, 3);
    SessionServer server(master.node, &master.driver);
    ASSERT_TRUE(server.listen(0, "127.0.0.1"));
    auto leaves = std::make_unique<SessionClient>(leaving.node, &leaving.driver);
    leaves->connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitUntil([&] { return server.clientCount() == 1; }));
    std::shared_ptr<Dovel::BundleController> leavingSession =
        server.sessions().front()->controller();
    SessionClient stays(staying.node, &staying.driver);
    stays.connectToHost("127.0.0.1", server.port());
    ASSERT_TRUE(waitSame(master, leaving));
    ASSERT_TRUE(waitSame(master, staying));
    ASSERT_TRUE(waitUntil([&] { return server.clientCount() == 2; }));
    std::shared_ptr<Dovel::BundleController> stayingSession;
    for (const auto& session : server.sessions())
        if (session->controller() != leavingSession)
            stayingSession = session->controller();
    ASSERT_TRUE(leavingSession && stayingSession);

    // The server's tree thread stops in a pass after it has run the leaving session's
    // tasks, and goes on once the batch has arrived and the session has ended: the next
    // pass finds the batch in a session that is over.
    std::promise<void> stopped;
    std::promise<void> gate;
    stayingSession->addTask([&stopped, open = gate.get_future().share()](auto&) {
        stopped.set_value();
        open.wait();
    });
    stopped.get_future().wait();
    leaving.run([&] { // one batch
        typed<float>(leaving.node, "scene/v1")->setValue(42.0f, L2);
        auto* a = new AttributeT<int32_t>();
        a->setValue(5, L2);
        leaving.node.addDeepAttribute("added/last", a);
    });
    EXPECT_TRUE(waitUntil([&] { return leavingSession->receiveBacklog().bytes() > 0; }));
    leaves.reset();
    EXPECT_TRUE(waitUntil([&] { return server.stats().sessionsEnded.load() == 1; }));
    leavingSession.reset(); // controllers are released on the tree thread
    stayingSession.reset();
    gate.set_value();

    EXPECT_TRUE(waitUntil([&] { return floatAt(staying, "scene/v1") == 42.0f; }));
    EXPECT_TRUE(waitUntil([&] { return hasPath(staying, "added/last"); }));
    EXPECT_TRUE(waitSame(master, staying));
    EXPECT_EQ(floatAt(master, "scene/v1"), 42.0f);
}

TEST(EndToEnd, AnObserverNeverWritesAndEachSessionMakesItTheServersCopy) {
    Side master("master");
    Side observer("observer");
    addScene(master, 4);
    master.run([&] { master.node.addDeepAttribute("group/x", new AttributeT<float>()); });
    // Kept apart on each side ("id" attributes are not shared): the observer's survives
    // every new session.
    for (Side* side : {&master, &observer})
        side->run([&] {
            side->node.addDeepAttribute("scene/id", new AttributeT<int32_t>(nullptr, "", 7));
        });
    auto server = std::make_unique<SessionServer>(master.node, &master.driver);
    ASSERT_TRUE(server->listen(0, "127.0.0.1"));
    const int port = server->port();
    SessionClient::Options options;
    options.mirrorOnly = true;
    SessionClient client(observer.node, &observer.driver, options);
    client.connectToHost("127.0.0.1", port);
    ASSERT_TRUE(waitSame(master, observer));

    // What changes on the observer's side stays there: it sends nothing after the
    // handshake. (The server's next change arriving shows its output passes have run.)
    const uint64_t sentBefore = client.stats().bundlesSent.load();
    setFloat(observer, "scene/v0", -1.0f);
    observer.run([&] {
        auto* a = new AttributeT<float>();
        a->setValue(7.0f, L2);
        observer.node.addDeepAttribute("scene/mine", a);
    });
    setFloat(master, "scene/v3", 30.0f);
    ASSERT_TRUE(waitUntil([&] { return floatAt(observer, "scene/v3") == 30.0f; }));
    EXPECT_EQ(floatAt(master, "scene/v0"), 0.5f);
    EXPECT_EQ(client.stats().bundlesSent.load(), sentBefore);

    // A new server tree: a value gone, one of another type, a value where a node was and
    // a node where a value was. The observer's copy becomes it, its own addition goes,
    // and the server gets nothing back.
    server.reset();
    EXPECT_TRUE(waitUntil([&] { return !client.isConnected(); }));
    master.run([&] {
        Tessel::Node* scene = Tessel::asNode(master.node.attribute("scene"));
        ASSERT_TRUE(scene);
        scene->deleteAttribute(scene->attribute("v1"));
        scene->deleteAttribute(scene->attribute("v2"));
        scene->deleteAttribute(scene->attribute("v3"));
        new AttributeT<QString>(scene, "v2", QStringLiteral("text"));
        auto* inner = new Tessel::Node(scene, "v3");
        new AttributeT<float>(inner, "deep", 3.5f);
        master.node.deleteAttribute(master.node.attribute("group"));
        new AttributeT<float>(&master.node, "group", 1.5f);
    });
    server = std::make_unique<SessionServer>(master.node, &master.driver);
    ASSERT_TRUE(server->listen(port, "127.0.0.1"));
    ASSERT_TRUE(waitUntil([&] { return client.stats().sessionsStarted.load() == 2; }, 15000));
    ASSERT_TRUE(waitUntil([&] { return client.stats().batchesApplied.load() >= 2; }));
    ASSERT_TRUE(waitSame(master, observer)) << describe(snapshot(master)).constData() << "--\n"
                                            << describe(snapshot(observer)).constData();
    EXPECT_EQ(attributeCount(master), 5);
}

TEST(EndToEnd, AServerAndAClientWithoutDriversShareTheHostUpdateLoop) {
    // Both trees live on the one host tree thread; the hook runs both sessions.
    Dovel::RemoteNode shared(nullptr, "shared");
    Dovel::RemoteNode mirror(nullptr, "mirror");
    auto* value = new AttributeT<float>();
    value->setValue(1.0f, L2);
    ASSERT_TRUE(shared.addDeepAttribute("scene/value", value));
    HostLoop host;
    {
        SessionServer server(shared, nullptr);
        ASSERT_TRUE(server.listen(0, "127.0.0.1"));
        SessionClient client(mirror, nullptr);
        client.connectToHost("127.0.0.1", server.port());
        EXPECT_TRUE(waitUntil([&] { return host.floatAt(mirror, "scene/value") == 1.0f; }));
        EXPECT_EQ(Dovel::BundleController::automaticCoreCount(), 2);
        host.run([&] { typed<float>(mirror, "scene/value")->setValue(8.0f, L2); });
        EXPECT_TRUE(waitUntil([&] { return host.floatAt(shared, "scene/value") == 8.0f; }));
    }
    EXPECT_TRUE(automaticCoresDropped());
}
