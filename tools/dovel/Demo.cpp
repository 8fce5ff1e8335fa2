#include "Demo.h"

#include "CommandLine.h"
#include "MirrorClient.h"
#include "TreeJson.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Color.h"
#include "Basalt/TimeStamp.h"
#include "Quant/Vector.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QElapsedTimer>

#include <chrono>
#include <cmath>
#include <thread>

namespace DovelTool {

namespace {

constexpr int Cubes = 6;
constexpr int FramesPerSecond = 60;
constexpr auto Layer = Tessel::Attribute::LayerRemote;

template <typename T> Tessel::AttributeT<T>* typed(Tessel::Node& root, const QByteArray& path) {
    Tessel::Attribute* at = &root;
    for (const QByteArray& name : path.split('/'))
        at = at ? at->attribute(name) : nullptr;
    return dynamic_cast<Tessel::AttributeT<T>*>(at);
}

// The server's scene: a camera, a light, a few spinning cubes, a frame counter and the
// time of the frame (which the client uses to measure the delay).
void buildScene(Tessel::Node& root) {
    auto* scene = new Tessel::Node(&root, "scene");
    new Tessel::AttributeT<QString>(scene, "title", QStringLiteral("Dovel demo"));
    new Tessel::AttributeT<bool>(scene, "visible", true);
    new Tessel::AttributeT<int32_t>(scene, "frame", 0);
    new Tessel::AttributeT<Basalt::TimeStamp>(scene, "clock", Basalt::TimeStamp::currentTime());
    auto* camera = new Tessel::Node(scene, "camera");
    new Tessel::AttributeT<float>(camera, "fov", 60.0f);
    new Tessel::AttributeT<Quant::Vector3f>(camera, "position", Quant::Vector3f(0, 1.5f, 4));
    auto* light = new Tessel::Node(scene, "light");
    new Tessel::AttributeT<float>(light, "intensity", 1.0f);
    new Tessel::AttributeT<Basalt::Color>(light, "color", Basalt::Color(1.0f, 0.9f, 0.8f, 1.0f));
    auto* cubes = new Tessel::Node(scene, "cubes");
    for (int i = 0; i < Cubes; ++i) {
        auto* cube = new Tessel::Node(cubes, QByteArray("cube") + QByteArray::number(i + 1));
        new Tessel::AttributeT<float>(cube, "angle", 0.0f);
        new Tessel::AttributeT<Quant::Vector3f>(cube, "position",
                                                Quant::Vector3f(float(i) - Cubes / 2.0f, 0, 0));
    }
}

// One frame of the animation at `t` seconds, on the server's tree thread.
void animate(Tessel::Node& root, int frame, double t) {
    typed<int32_t>(root, "scene/frame")->setValue(frame, Layer);
    typed<Basalt::TimeStamp>(root, "scene/clock")
        ->setValue(Basalt::TimeStamp::currentTime(), Layer);
    const float orbit = float(t * 0.8);
    typed<Quant::Vector3f>(root, "scene/camera/position")
        ->setValue(Quant::Vector3f(4 * std::sin(orbit), 1.5f, 4 * std::cos(orbit)), Layer);
    typed<float>(root, "scene/light/intensity")
        ->setValue(float(0.75 + 0.25 * std::sin(t * 3)), Layer);
    for (int i = 0; i < Cubes; ++i) {
        const QByteArray cube = "scene/cubes/cube" + QByteArray::number(i + 1);
        typed<float>(root, cube + "/angle")
            ->setValue(float(std::fmod(t * 90 * (i + 1), 360.0)), Layer);
        typed<Quant::Vector3f>(root, cube + "/position")
            ->setValue(
                Quant::Vector3f(float(i) - Cubes / 2.0f, float(0.5 * std::sin(t * 2 + i)), 0),
                Layer);
    }
}

int countAttributes(Tessel::Node& root) {
    int count = 0;
    Dovel::walkAttributesWithPath(root, [&](Tessel::Attribute&, const QByteArray&) { ++count; });
    return count;
}

// What the client saw, kept on its tree thread.
struct ClientTally {
    uint64_t changes = 0;
    uint64_t delaySamples = 0;
    double delaySum = 0; // seconds
};

QString vectorText(const Quant::Vector3f& v) {
    return QStringLiteral("[%1, %2, %3]")
        .arg(double(v.x), 5, 'f', 2)
        .arg(double(v.y), 5, 'f', 2)
        .arg(double(v.z), 5, 'f', 2);
}

void say(const QString& text) {
    CommandLine::print(text.toUtf8() + '\n');
}

} // namespace

int runDemo(double seconds) {
    say(QStringLiteral("dovel demo: a server and a client in this process share one tree over "
                       "TCP on 127.0.0.1."));

    Dovel::RemoteNode serverRoot(nullptr, QByteArrayLiteral("demo"));
    Dovel::SessionDriver serverThread;
    int attributes = 0;
    serverThread.call([&] {
        buildScene(serverRoot);
        attributes = countAttributes(serverRoot);
    });
    Dovel::SessionServer server(serverRoot, &serverThread);
    if (!server.listen(0, QStringLiteral("127.0.0.1")))
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("the demo server cannot listen"));
    say(QStringLiteral("server  listening on 127.0.0.1:%1, sharing %2 attributes")
            .arg(server.port())
            .arg(attributes));

    MirrorClient client;
    ClientTally tally;
    long listener = -1;
    client.driver().call([&] {
        Dovel::RemoteNode& mirror = client.node();
        listener = mirror.addAttributeChangeListener([&](const Dovel::NodeWatcher::Event& event) {
            if (event.type != Dovel::NodeWatcher::AttributeChanged)
                return;
            ++tally.changes;
            if (mirror.symbolRegistry().lookup(uint32_t(event.symbol)) != "scene/clock")
                return;
            if (auto* clock = typed<Basalt::TimeStamp>(mirror, "scene/clock")) {
                tally.delaySum += clock->value().sinceSecondsD();
                tally.delaySamples += 1;
            }
        });
    });
    QElapsedTimer connectTimer;
    connectTimer.start();
    client.connectToHost(QStringLiteral("127.0.0.1"), server.port());
    if (!client.waitInitialState(5000))
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("the demo client got no session (%1)").arg(client.failureReason()));
    int mirrored = 0;
    client.driver().call([&] {
        mirrored = countAttributes(client.node());
        tally = ClientTally(); // the first announcement is not part of the animation
    });
    say(QStringLiteral("client  connected; its copy holds %1 attributes after %2 ms")
            .arg(mirrored)
            .arg(connectTimer.elapsed()));
    say(QString());
    say(QStringLiteral("The server now animates its tree %1 times a second for %2 s; the client's "
                       "copy follows:")
            .arg(FramesPerSecond)
            .arg(seconds));
    say(QStringLiteral("(each line is read while the newest frame may still be on its way, so the "
                       "client\ncan be a frame behind)"));
    say(QString());
    say(QStringLiteral("   time   frame on server / client   scene/camera/position on server / "
                       "client"));

    // The animation runs at a steady pace: the sleeps set the frame rate, they do not
    // wait for anything.
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const auto framePeriod = std::chrono::microseconds(1000000 / FramesPerSecond);
    const int frames = int(seconds * FramesPerSecond);
    for (int frame = 1; frame <= frames; ++frame) {
        std::this_thread::sleep_until(start + frame * framePeriod);
        const double t = std::chrono::duration<double>(Clock::now() - start).count();
        serverThread.post([&serverRoot, frame, t] { animate(serverRoot, frame, t); });
        if (frame % (FramesPerSecond / 2) != 0)
            continue;
        int serverFrame = 0;
        int clientFrame = 0;
        Quant::Vector3f serverCamera;
        Quant::Vector3f clientCamera;
        serverThread.call([&] {
            serverFrame = typed<int32_t>(serverRoot, "scene/frame")->value();
            serverCamera = typed<Quant::Vector3f>(serverRoot, "scene/camera/position")->value();
        });
        client.driver().call([&] {
            if (auto* at = typed<int32_t>(client.node(), "scene/frame"))
                clientFrame = at->value();
            if (auto* at = typed<Quant::Vector3f>(client.node(), "scene/camera/position"))
                clientCamera = at->value();
        });
        say(QStringLiteral("  %1 s   %2 / %3           %4 / %5")
                .arg(t, 4, 'f', 1)
                .arg(serverFrame, 5)
                .arg(clientFrame, -5)
                .arg(vectorText(serverCamera), vectorText(clientCamera)));
    }
    const double animated = std::chrono::duration<double>(Clock::now() - start).count();

    // The last frames are on their way: wait (with a deadline) until both trees match.
    TreeJson json;
    QByteArray serverTree;
    QByteArray clientTree;
    QElapsedTimer settle;
    settle.start();
    do {
        serverThread.call([&] { serverTree = json.dumpBytes(serverRoot); });
        client.driver().call([&] { clientTree = json.dumpBytes(client.node()); });
        if (serverTree == clientTree)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (settle.elapsed() < 3000);
    const bool same = serverTree == clientTree;

    ClientTally seen;
    client.driver().call([&] {
        seen = tally;
        client.node().removeAttributeChangeListener(listener);
    });
    client.stop();
    server.shutdown();

    say(QString());
    say(QStringLiteral("summary: %1 attributes shared; the client applied %2 changes in %3 s "
                       "(%4 changes/s);")
            .arg(attributes)
            .arg(seen.changes)
            .arg(animated, 0, 'f', 1)
            .arg(animated > 0 ? seen.changes / animated : 0.0, 0, 'f', 0));
    say(QStringLiteral("         mean delay from a change on the server to the client %1 ms (%2 "
                       "frames);")
            .arg(seen.delaySamples ? seen.delaySum / seen.delaySamples * 1000 : 0.0, 0, 'f', 2)
            .arg(seen.delaySamples));
    say(same ? QStringLiteral("         at the end the client's tree equals the server's.")
             : QStringLiteral("         at the end the client's tree still differs from the "
                              "server's."));
    return same ? CommandLine::Success : CommandLine::Failure;
}

int runDemoCommand(const QStringList& args) {
    CommandLine line(
        QStringLiteral("demo"), QStringLiteral("[--seconds SECONDS]"),
        QStringLiteral("Runs a server and a client in this process on a free loopback port. "
                       "The server\nanimates a small scene; the demo shows that the client's "
                       "copy follows it and\nends with a summary: attributes, changes per "
                       "second and the mean delay."));
    line.addOption(QStringLiteral("seconds"), QStringLiteral("SECONDS"),
                   QStringLiteral("how long the animation runs (default 3, at most 60)"));
    const int parsed = line.parseOrExit(args, 0, 0);
    if (parsed >= 0)
        return parsed;
    double seconds = 3.0;
    QString error;
    if (line.isSet(QStringLiteral("seconds")) &&
        (!CommandLine::parseSeconds(QStringLiteral("seconds"),
                                    line.value(QStringLiteral("seconds")), seconds, error) ||
         seconds > 60))
        return CommandLine::fail(CommandLine::UsageError,
                                 error.isEmpty() ? QStringLiteral("--seconds takes at most 60")
                                                 : error);
    return runDemo(seconds);
}

} // namespace DovelTool
