// share_tree: a server shares a small tree, a client mirrors it and changes a value,
// and the change comes back to the server. Both ends live in this one process here,
// each with its own tree thread; in an application they are two processes.
//
// Usage: share_tree [seconds]   (gives up, exit code 1, after that many seconds)
#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

// Asks `ask` on the tree thread every few milliseconds until it holds or time runs out.
bool waitFor(Dovel::SessionDriver& thread, const std::function<bool()>& ask, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        bool done = false;
        thread.call([&] { done = ask(); });
        if (done)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

float speedOf(Dovel::RemoteNode& root) {
    Attribute* car = root.attribute("car");
    auto* speed = car ? dynamic_cast<AttributeT<float>*>(car->attribute("speed")) : nullptr;
    return speed ? speed->value() : -1.0f;
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;

    // The server's tree: values go on the remote layer, so that the peer may change them.
    Dovel::RemoteNode serverRoot(nullptr, "scene");
    auto* speed = new AttributeT<float>();
    speed->setValue(1.0f, Attribute::LayerRemote);
    serverRoot.addDeepAttribute("car/speed", speed);
    auto* label = new AttributeT<QString>();
    label->setValue(QStringLiteral("red car"), Attribute::LayerRemote);
    serverRoot.addDeepAttribute("car/label", label);

    Dovel::SessionDriver serverThread; // runs the server's tree from here on
    Dovel::SessionServer server(serverRoot, &serverThread);
    if (!server.listen(0, QStringLiteral("127.0.0.1")))
        return 1;

    // The client starts empty and creates what the server announces.
    Dovel::RemoteNode clientRoot(nullptr, "scene");
    Dovel::SessionDriver clientThread;
    Dovel::SessionClient client(clientRoot, &clientThread);
    client.connectToHost(QStringLiteral("127.0.0.1"), server.port());

    if (!waitFor(
            clientThread, [&] { return speedOf(clientRoot) == 1.0f; }, seconds))
        return 1;
    std::printf("client: mirrored car/speed = %g\n", speedOf(clientRoot));

    clientThread.call([&] {
        auto* mirrored =
            dynamic_cast<AttributeT<float>*>(clientRoot.attribute("car")->attribute("speed"));
        mirrored->setValue(42.0f, Attribute::LayerRemote);
    });
    if (!waitFor(
            serverThread, [&] { return speedOf(serverRoot) == 42.0f; }, seconds))
        return 1;
    std::printf("server: car/speed = %g, set by the client\n", speedOf(serverRoot));
    return 0;
}
