// The binary session's framing: the exact bytes of "dovel2" batches, read by a handler
// whose parse hands every line to processDovel2, over a fake link where only the bytes
// matter and on a real socket (a hand-driven peer) where the connection's behaviour does.
#include "Dovel/Limits.h"
#include "Dovel/session/BundleController.h"
#include "Dovel/session/Dovel1Connection.h"
#include "Dovel/session/ProcessDovel2.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"

#include "transport/FakeLink.h"
#include "transport/TransportTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace TransportTest;
using Dovel::Bundle;

namespace {

// A client's handler whose parse is processDovel2 over a manual controller; records
// each line with processDovel2's answer.
class FramingHandler : public Dovel::ConnectionHandler {
public:
    FramingHandler(Dovel::ConnectionLink& link, std::shared_ptr<Dovel::BundleController> controller)
        : Dovel::ConnectionHandler(link), controller(std::move(controller)) {}

    QStringList results() const {
        Basalt::Guard guard(mutex);
        return copyOf(answers);
    }

protected:
    bool parse(const QString& line) override {
        const bool recognised = Dovel::processDovel2(controller, link(), line);
        Basalt::Guard guard(mutex);
        answers.append(line + (recognised ? " -> true" : " -> false"));
        return recognised;
    }

private:
    std::shared_ptr<Dovel::BundleController> controller;
    mutable Basalt::Mutex mutex;
    QStringList answers;
};

// Bundles written by hand: header words (payload size, type, sequence, acknowledged),
// little-endian, then the payload.
const QByteArray first = QByteArray::fromHex("04000000 07000000 01000000 00000000 61626364");
const QByteArray second =
    QByteArray::fromHex("08000000 07000000 02000000 01000000 0100000002000000");

std::shared_ptr<Dovel::BundleController>
manualController(Dovel::RemoteNode& node, std::shared_ptr<Dovel::BundleCounters> counters) {
    Dovel::BundleControllerParams params;
    params.autoUpdate = false;
    params.counters = std::move(counters);
    return Dovel::BundleController::create(node, params);
}

// The framing over a fake link: the test's thread reads, nothing else runs.
struct FakeFixture {
    Dovel::RemoteNode node{nullptr, "n"};
    std::shared_ptr<Dovel::BundleCounters> counters = std::make_shared<Dovel::BundleCounters>();
    FakeLink link;
    FramingHandler framing{link, manualController(node, counters)};
};

struct Fixture {
    Fixture() : node(nullptr, "n") {
        controller = manualController(node, counters);
        connection = Dovel::ConnectionThread::create<FramingHandler>(nullptr, false, controller);
        connection->setKeepRetrying(false);
        framing = Dovel::ConnectionThread::handlerOf<FramingHandler>(connection);
    }
    // Connects the client to the hand-driven server and plays the login.
    bool connect(const QByteArray& greeting = "Heliotrope 2.6.1", bool versionLine = true) {
        connection->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
        peer = listener.accept();
        if (!peer || !serveLogin(*peer, greeting, versionLine))
            return false;
        return waitUntil([&] { return connection->isConnected(); });
    }

    Dovel::RemoteNode node;
    std::shared_ptr<Dovel::BundleCounters> counters = std::make_shared<Dovel::BundleCounters>();
    std::shared_ptr<Dovel::BundleController> controller;
    RawListener listener;
    std::shared_ptr<Dovel::ConnectionThread> connection;
    std::shared_ptr<FramingHandler> framing;
    std::unique_ptr<RawPeer> peer;
};

} // namespace

TEST(Framing, SendWritesTheLineAndTheRawBundlesAsOneItemAndCutsBatchesAtTheLimit) {
    Fixture f;
    ASSERT_TRUE(f.connect());
    ASSERT_EQ(f.peer->readLine(), QByteArray("ping initialized"));
    Dovel::Dovel1Connection out(f.connection);
    out.send({}); // nothing at all
    out.send({Bundle(first), Bundle(second)});
    EXPECT_EQ(f.peer->readLine(), QByteArray("dovel2 2"));
    EXPECT_EQ(f.peer->readExact(first.size() + second.size()).toHex(), (first + second).toHex());
    EXPECT_TRUE(f.peer->quietFor(50));

    // More bundles than a peer takes in one batch leave as consecutive batches.
    const int limit = Dovel::Limits::MaxBundlesPerBatch;
    std::vector<Bundle> many(size_t(limit) + 2, Bundle(first));
    many.back() = Bundle(second);
    out.send(many);
    EXPECT_EQ(f.peer->readLine(), "dovel2 " + QByteArray::number(limit));
    EXPECT_EQ(f.peer->readExact(first.size() * limit), first.repeated(limit));
    EXPECT_EQ(f.peer->readLine(), QByteArray("dovel2 2"));
    EXPECT_EQ(f.peer->readExact(first.size() + second.size()).toHex(), (first + second).toHex());
    EXPECT_TRUE(f.peer->quietFor(50));
}

TEST(Framing, APeerWithoutBundleSupportIsSentNothing) {
    Fixture f;
    ASSERT_TRUE(f.connect("Heliotrope 2.0.3", true));
    ASSERT_FALSE(f.connection->isDovel15Supported());
    Dovel::Dovel1Connection out(f.connection);
    out.send({Bundle(first)});
    f.connection->queue(QStringLiteral("marker\n"));
    EXPECT_EQ(nextLine(*f.peer), QByteArray("marker"));
}

TEST(Framing, BatchesAreReadAndHostileCountsAndSizesEndTheConnection) {
    const QByteArray tooMany = QByteArray::number(Dovel::Limits::MaxBundlesPerBatch + 1);
    const struct {
        const char* what;
        QByteArray sent;
        QStringList answers;
        bool ended;
        uint64_t batches;
    } cases[] = {
        {"batches, and lines that are not batches",
         "dovel2 many\ndovel2\nDOVEL2 1\ndovel2 2\n" + first + second + "dovel2 0\n",
         {"dovel2 many -> false", "dovel2 -> false", "DOVEL2 1 -> false", "dovel2 2 -> true",
          "dovel2 0 -> true"},
         false,
         2},
        {"a bundle above the limit",
         "dovel2 1\n" + QByteArray::fromHex("ffffffff 07000000 01000000 00000000") + "abcd",
         {"dovel2 1 -> true"},
         true,
         0},
        {"a batch above the limit",
         "dovel2 " + tooMany + "\n" + first,
         {"dovel2 " + QString(tooMany) + " -> true"},
         true,
         0},
        {"the peer goes away inside the second bundle",
         "dovel2 2\n" + first + second.left(20),
         {"dovel2 2 -> true"},
         true,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FakeFixture f;
        f.link.feed(c.sent);
        f.link.pump(f.framing);
        EXPECT_EQ(f.framing.results(), c.answers);
        EXPECT_EQ(f.link.ended, c.ended);
        EXPECT_EQ(f.counters->batchesReceived.load(), c.batches);
    }
}

TEST(Framing, APeerThatStopsReadingIsDisconnectedOnceBatchesPileUp) {
    Fixture f;
    ASSERT_TRUE(f.connect());
    // From here on the peer reads nothing: the socket's buffers fill, then the writer's.
    constexpr int64_t Ceiling = 4 << 20;
    Dovel::Dovel1Connection out(f.connection, Ceiling);
    const QByteArray payload(64 << 10, 'p');
    QByteArray packet = QByteArray::fromHex("00000100 07000000 01000000 00000000");
    packet += payload;
    const std::vector<Bundle> batch{Bundle(packet)};
    int64_t mostWaiting = 0;
    EXPECT_TRUE(waitUntil(
        [&] {
            out.send(batch);
            mostWaiting = std::max(mostWaiting, f.connection->writerThread()->bufferedDataSize());
            return !f.connection->isLive();
        },
        20000));
    // Batches of the passes until the connection's thread notices go nowhere, unlogged.
    for (int i = 0; i < 3; ++i)
        out.send(batch);
    EXPECT_TRUE(waitUntil([&] { return !f.connection->isConnected(); }));
    // About the ceiling and the batch that crossed it (the writer counts a part-written
    // item in whole): nothing like the pile an unbounded writer would hold.
    EXPECT_LE(mostWaiting, Ceiling + 2 * packet.size());
}
