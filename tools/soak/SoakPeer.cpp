// dovel-soak-peer: one process of scripts/soak.sh. As "server" it shares a tree on a
// port; as "client" it mirrors a server's tree. Either way it makes random additions,
// changes and removals and raises one-way events for a while, then waits until nothing
// has arrived for a quiet period, writes its tree as JSON and prints one line of
// figures. The trees of all the peers of one run must come out identical.
//
// Each peer adds and removes only below its own name, so that a removal never races an
// addition of the same path; changes go to any attribute of the tree, the peers' own
// and the others' alike.
#include "dovel/TreeJson.h"

#include "Dovel/session/SessionClient.h"
#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/BinaryData.h"
#include "Basalt/Trace.h"
#include "Quant/Vector.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QSaveFile>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr auto Layer = Tessel::Attribute::LayerRemote;
// Attributes each peer keeps below its own name at the most.
constexpr int MaxOwn = 500;
// Passes of random work per second.
constexpr int PassesPerSecond = 100;

struct Leaf {
    QByteArray path;
    Tessel::Attribute* attribute;
};

// The random work of one peer. Lives on the tree thread.
class Churn {
public:
    Churn(Dovel::RemoteNode& root, const QByteArray& name, uint32_t seed)
        : root(root), name(name), random(seed) {}

    // One pass: `operations` random operations on the tree as it is now.
    void pass(int operations) {
        leaves.clear();
        byPath.clear();
        collect(root, QByteArray());
        for (int i = 0; i < operations; ++i) {
            const int pick = int(random() % 100);
            if (pick < 8 || leaves.empty())
                add();
            else if (pick < 13)
                removeOwn();
            else if (pick < 95)
                changeAny();
            else
                raiseEvent();
        }
    }

    uint64_t additions = 0;
    uint64_t removals = 0;
    uint64_t changes = 0;
    uint64_t events = 0;

private:
    void collect(Tessel::Node& node, const QByteArray& prefix) {
        for (Tessel::Attribute* child : node.children()) {
            const QByteArray path = Dovel::childPath(prefix, child->name());
            if (auto* inner = Tessel::asNode(child)) {
                collect(*inner, path);
            } else {
                byPath.insert(path, int(leaves.size()));
                leaves.push_back({path, child});
            }
        }
    }

    void add() {
        if (int(own.size()) >= MaxOwn) {
            removeOwn();
            return;
        }
        const int id = nextId++;
        const QByteArray path =
            name + "/g" + QByteArray::number(id % 16) + "/a" + QByteArray::number(id);
        Tessel::Attribute* attribute = nullptr;
        switch (random() % 4) {
        case 0:
            attribute = new Tessel::AttributeT<float>(nullptr, QByteArray(), randomFloat());
            break;
        case 1:
            attribute = new Tessel::AttributeT<int32_t>(nullptr, QByteArray(), int32_t(random()));
            break;
        case 2:
            attribute = new Tessel::AttributeT<QString>(nullptr, QByteArray(), randomText());
            break;
        default:
            attribute = new Tessel::AttributeT<Quant::Vector3f>(
                nullptr, QByteArray(),
                Quant::Vector3f(randomFloat(), randomFloat(), randomFloat()));
            break;
        }
        if (!root.addDeepAttribute(path, attribute)) {
            delete attribute;
            return;
        }
        own.push_back(path);
        ++additions;
    }

    void removeOwn() {
        if (own.empty())
            return;
        const size_t at = random() % own.size();
        const QByteArray path = own[at];
        own[at] = own.back();
        own.pop_back();
        const auto found = byPath.constFind(path);
        if (found == byPath.constEnd())
            return; // added in this pass: not among the leaves yet
        Leaf& leaf = leaves[size_t(*found)];
        if (!leaf.attribute)
            return;
        delete leaf.attribute; // detaches it from its node
        leaf.attribute = nullptr;
        ++removals;
    }

    void changeAny() {
        if (leaves.empty())
            return;
        Tessel::Attribute* attribute = leaves[random() % leaves.size()].attribute;
        if (!attribute)
            return;
        if (auto* f = dynamic_cast<Tessel::AttributeT<float>*>(attribute))
            f->setValue(randomFloat(), Layer);
        else if (auto* i = dynamic_cast<Tessel::AttributeT<int32_t>*>(attribute))
            i->setValue(int32_t(random()), Layer);
        else if (auto* s = dynamic_cast<Tessel::AttributeT<QString>*>(attribute))
            s->setValue(randomText(), Layer);
        else if (auto* v = dynamic_cast<Tessel::AttributeT<Quant::Vector3f>*>(attribute))
            v->setValue(Quant::Vector3f(randomFloat(), randomFloat(), randomFloat()), Layer);
        else
            return;
        ++changes;
    }

    void raiseEvent() {
        Basalt::BinaryData data;
        data.writeInt64(int64_t(events));
        data.writeBlob(name.constData(), name.size());
        root.eventProcess("soak-event", data);
        ++events;
    }

    float randomFloat() { return float(random() % 2000001) / 1000.0f - 1000.0f; }

    QString randomText() {
        QString text;
        for (int i = 0; i < 8; ++i)
            text += QChar(u'a' + char16_t(random() % 26));
        return text;
    }

    Dovel::RemoteNode& root;
    const QByteArray name;
    std::mt19937 random;
    std::vector<QByteArray> own;
    int nextId = 0;
    std::vector<Leaf> leaves;
    QHash<QByteArray, int> byPath;
};

double peakRssMb() {
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    return 0;
}

int fail(const QString& message, int status) {
    std::fprintf(stderr, "dovel-soak-peer: %s\n", message.toLocal8Bit().constData());
    return status;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "One peer of the soak test: shares (server) or mirrors (client) a tree and changes "
        "it at random, then writes the tree as JSON once it is quiet.");
    parser.addHelpOption();
    parser.addPositionalArgument("role", "server or client");
    parser.addPositionalArgument("address", "client: HOST:PORT of the server");
    const QCommandLineOption nameOption("name", "The peer's name, below which it adds.", "NAME");
    const QCommandLineOption secondsOption("seconds", "How long to make changes.", "SECONDS", "10");
    const QCommandLineOption quietOption(
        "quiet", "How long nothing may arrive before the tree counts as settled.", "SECONDS", "3");
    const QCommandLineOption rateOption("rate", "Random operations per second.", "N", "5000");
    const QCommandLineOption seedOption("seed", "Seed of the random operations.", "N", "1");
    const QCommandLineOption outOption("out", "Where to write the tree as JSON.", "FILE");
    const QCommandLineOption listenOption("listen", "server: the port to listen on (0: any).",
                                          "PORT", "0");
    for (const auto& option :
         {nameOption, secondsOption, quietOption, rateOption, seedOption, outOption, listenOption})
        parser.addOption(option);
    parser.process(app);

    const QStringList args = parser.positionalArguments();
    const bool server = args.value(0) == QLatin1String("server");
    if (args.isEmpty() || (!server && args.value(0) != QLatin1String("client")) ||
        args.size() != (server ? 1 : 2))
        return fail("usage: dovel-soak-peer server|client [HOST:PORT] --name NAME --out FILE", 2);
    bool ok = true;
    const double seconds = parser.value(secondsOption).toDouble(&ok);
    bool okQuiet = true;
    const double quiet = parser.value(quietOption).toDouble(&okQuiet);
    bool okRate = true;
    const int rate = parser.value(rateOption).toInt(&okRate);
    bool okSeed = true;
    const uint32_t seed = parser.value(seedOption).toUInt(&okSeed);
    bool okPort = true;
    const int listenPort = parser.value(listenOption).toInt(&okPort);
    const QByteArray name = parser.value(nameOption).toUtf8();
    if (!ok || !okQuiet || !okRate || !okSeed || !okPort || seconds < 0 || quiet <= 0 || rate < 0 ||
        name.isEmpty() || name.contains('/') || parser.value(outOption).isEmpty())
        return fail("bad option; see --help", 2);
    QString host;
    int port = 0;
    if (!server) {
        const int colon = args[1].lastIndexOf(':');
        port = colon > 0 ? args[1].mid(colon + 1).toInt(&ok) : 0;
        host = args[1].left(colon);
        if (colon <= 0 || !ok || port <= 0 || port > 65535)
            return fail("bad address '" + args[1] + "', expected HOST:PORT", 2);
    }
    Basalt::Trace::setThreshold(Basalt::Trace::Warning);

    // The tree outlives the driver, whose sessions refer to it until it has stopped.
    Dovel::RemoteNode root(nullptr, "soak");
    Dovel::SessionDriver driver;
    std::atomic<uint64_t> eventsReceived{0};
    driver.call([&] {
        root.eventAddListenerBd(
            "soak-event", [&](Basalt::BinaryData&) { eventsReceived.fetch_add(1); },
            Tessel::Node::Direct);
    });
    std::unique_ptr<Dovel::SessionServer> sessionServer;
    std::unique_ptr<Dovel::SessionClient> sessionClient;
    const Dovel::SessionStats* stats = nullptr;
    if (server) {
        sessionServer = std::make_unique<Dovel::SessionServer>(root, &driver);
        if (!sessionServer->listen(listenPort, QStringLiteral("127.0.0.1")))
            return fail("cannot listen", 1);
        std::printf("listening on 127.0.0.1:%d\n", sessionServer->port());
        std::fflush(stdout);
        stats = &sessionServer->stats();
    } else {
        sessionClient = std::make_unique<Dovel::SessionClient>(root, &driver);
        sessionClient->connectToHost(host, port);
        stats = &sessionClient->stats();
    }

    Churn churn(root, name, seed);
    QElapsedTimer clock;
    clock.start();
    const int perPass = rate / PassesPerSecond;
    int passes = 0;
    while (clock.elapsed() < seconds * 1000) {
        driver.call([&] { churn.pass(perPass); });
        ++passes;
        const auto due = std::chrono::milliseconds(passes * 1000 / PassesPerSecond);
        const auto elapsed = std::chrono::milliseconds(clock.elapsed());
        if (due > elapsed)
            std::this_thread::sleep_for(due - elapsed);
    }
    const double busy = clock.elapsed() / 1000.0;

    // Settled: nothing has arrived for `quiet` seconds.
    uint64_t seen = stats->bundlesReceived.load();
    QElapsedTimer still;
    still.start();
    while (still.elapsed() < quiet * 1000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const uint64_t now = stats->bundlesReceived.load();
        if (now != seen) {
            seen = now;
            still.restart();
        }
    }

    const DovelTool::TreeJson format;
    QByteArray json;
    driver.call([&] { json = format.dumpBytes(root); });
    QSaveFile out(parser.value(outOption));
    if (!out.open(QIODevice::WriteOnly) || out.write(json) != json.size() || !out.commit())
        return fail("cannot write " + parser.value(outOption), 1);

    const uint64_t made = churn.additions + churn.removals + churn.changes;
    std::printf("%s: %llu changes in %.1f s (%.0f/s; %llu added, %llu removed), %llu events "
                "sent, %llu received, %llu bundles received, peak %.1f MiB\n",
                name.constData(), static_cast<unsigned long long>(made), busy,
                busy > 0 ? made / busy : 0.0, static_cast<unsigned long long>(churn.additions),
                static_cast<unsigned long long>(churn.removals),
                static_cast<unsigned long long>(churn.events),
                static_cast<unsigned long long>(eventsReceived.load()),
                static_cast<unsigned long long>(stats->bundlesReceived.load()), peakRssMb());
    std::fflush(stdout);
    if (sessionClient)
        sessionClient->stop();
    return 0;
}
