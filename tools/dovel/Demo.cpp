#include "Demo.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/Bundle.h"
#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleOutput.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleSender.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "Dovel/transport/ConnectionThread.h"
#include "Dovel/transport/ServerBase.h"

#include "Basalt/SymbolRegistry.h"
#include "Basalt/TCPSocket.h"
#include "Basalt/TimeStamp.h"
#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <QList>
#include <QTextStream>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>

namespace DovelTool {

namespace {

// Serialises the demo's output lines, which come from several connection threads.
class Printer {
public:
    explicit Printer(QTextStream& out) : out(out) {}
    void line(const QString& text) {
        std::lock_guard<std::mutex> lock(mutex);
        out << text << "\n";
        out.flush();
    }

private:
    std::mutex mutex;
    QTextStream& out;
};

// Announces every path of a tree once, in the symbol-registry message.
class PathSender : public Dovel::BundleSender {
public:
    explicit PathSender(const QList<QPair<uint32_t, QByteArray>>& paths) : paths(paths) {}

    void writeUpdates(Dovel::BundleOutput& output) override {
        if (sent || paths.isEmpty())
            return;
        Dovel::Bundle bundle;
        Dovel::BundleWriterCore writer(bundle);
        for (const auto& path : paths) {
            writer.writeUInt32(path.first);
            writer.writeBytes(path.second);
        }
        output.finish(bundle, symbolMessageType);
        sent = true;
    }

private:
    QList<QPair<uint32_t, QByteArray>> paths;
    bool sent = false;
};

// One side of the demo session: a dispatcher with the symbol module and the path
// sender. The connection thread is the only one that touches it once connected, but
// the first flush runs from connected(), so a mutex keeps the two entries apart.
struct Session {
    explicit Session(const QList<QPair<uint32_t, QByteArray>>& paths) {
        dispatcher.addModule(std::make_shared<Dovel::SymbolRegistryReceiver>(learnt));
        dispatcher.addSender(std::make_shared<PathSender>(paths));
    }
    std::mutex mutex;
    Dovel::BundleDispatcher dispatcher;
    Basalt::SymbolRegistry learnt; // the peer's symbols
    int batchesReceived = 0;
};

class DemoConnection : public Dovel::ConnectionThread {
public:
    DemoConnection(Basalt::TCPSocket* socket, bool serverSide, std::shared_ptr<Session> session,
                   Printer& printer, std::function<void()> changed)
        : ConnectionThread(socket, serverSide), session(std::move(session)), printer(printer),
          changed(std::move(changed)) {}
    ~DemoConnection() override { shutdown(); }

protected:
    void connected() override {
        printer.line(
            QStringLiteral("%1: logged in, peer speaks version %2").arg(side(), remoteVersion()));
        flush();
    }

    bool parse(const QString& line) override {
        if (!line.startsWith(QLatin1String("dovel2 ")))
            return false;
        bool ok = false;
        const int count = line.mid(7).toInt(&ok);
        if (!ok)
            return false;
        std::vector<Dovel::Bundle> batch;
        for (int i = 0; i < count; ++i) {
            QByteArray packet = readData(int(Dovel::BundleCore::HeaderSize));
            if (packet.size() != int(Dovel::BundleCore::HeaderSize))
                return true; // the connection failed and ends
            const uint32_t payload = Dovel::BundleCore(packet).headerWord(0);
            if (payload > uint32_t(Dovel::Limits::MaxReadBytes))
                return true;
            packet += readData(int(payload));
            try {
                batch.emplace_back(packet);
            } catch (const std::exception& e) {
                printer.line(QStringLiteral("%1: dropped a bundle: %2").arg(side(), e.what()));
                return true;
            }
        }
        {
            std::lock_guard<std::mutex> lock(session->mutex);
            for (Dovel::Bundle& bundle : batch) {
                Dovel::BundleReader reader(bundle);
                try {
                    session->dispatcher.dispatchBundle(reader);
                } catch (const std::exception& e) {
                    printer.line(QStringLiteral("%1: bad bundle: %2").arg(side(), e.what()));
                }
            }
            ++session->batchesReceived;
        }
        printer.line(QStringLiteral("%1: received %2 bundle(s)").arg(side()).arg(count));
        flush();
        changed();
        return true;
    }

private:
    QString side() const {
        return isServerSide() ? QStringLiteral("server") : QStringLiteral("client");
    }

    // Sends whatever the session has to say as one "dovel2" batch.
    void flush() {
        std::vector<Dovel::Bundle> out;
        {
            std::lock_guard<std::mutex> lock(session->mutex);
            session->dispatcher.writeUpdates(out);
        }
        if (out.empty())
            return;
        QList<QByteArray> parts;
        parts << QStringLiteral("dovel2 %1\n").arg(out.size()).toUtf8();
        for (const Dovel::Bundle& bundle : out)
            parts << bundle.packet();
        writeBuffer(parts, QByteArrayLiteral("dovel2"));
        printer.line(QStringLiteral("%1: sent %2 bundle(s)").arg(side()).arg(out.size()));
    }

    std::shared_ptr<Session> session;
    Printer& printer;
    std::function<void()> changed;
};

class DemoServer : public Dovel::ServerBase {
public:
    DemoServer(std::shared_ptr<Session> session, Printer& printer, std::function<void()> changed)
        : session(std::move(session)), printer(printer), changed(std::move(changed)) {}
    ~DemoServer() override { shutdown(); }

protected:
    std::shared_ptr<Dovel::ConnectionThread> createConnection(Basalt::TCPSocket* socket) override {
        return std::make_shared<DemoConnection>(socket, true, session, printer, changed);
    }

private:
    std::shared_ptr<Session> session;
    Printer& printer;
    std::function<void()> changed;
};

// The server's tree, and its paths with the server's symbols.
void buildScene(Tessel::Node& root, Basalt::SymbolRegistry& symbols,
                QList<QPair<uint32_t, QByteArray>>& paths) {
    auto* scene = new Tessel::Node(&root, "scene");
    auto* camera = new Tessel::Node(scene, "camera");
    new Tessel::AttributeT<float>(camera, "fov", 60.0f);
    new Tessel::AttributeT<Quant::Vector3f>(camera, "position", Quant::Vector3f(0, 1.5f, 4));
    new Tessel::AttributeT<QString>(scene, "title", QStringLiteral("Dovel demo"));
    new Tessel::AttributeT<bool>(scene, "visible", true);

    std::function<void(Tessel::Node&, const QByteArray&)> walk = [&](Tessel::Node& node,
                                                                     const QByteArray& prefix) {
        for (Tessel::Attribute* child : node.children()) {
            const QByteArray path = prefix.isEmpty() ? child->name() : prefix + '/' + child->name();
            if (auto* sub = dynamic_cast<Tessel::Node*>(child))
                walk(*sub, path);
            else
                paths.append({symbols.lookupOrDefine(path), path});
        }
    };
    walk(root, QByteArray());
}

} // namespace

int runDemo(QTextStream& out, int timeoutMs) {
    Printer printer(out);
    std::mutex mutex;
    std::condition_variable progress;
    auto changed = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        progress.notify_all();
    };

    Tessel::Node root;
    Basalt::SymbolRegistry serverSymbols;
    QList<QPair<uint32_t, QByteArray>> paths;
    buildScene(root, serverSymbols, paths);
    printer.line(QStringLiteral("server: sharing %1 attributes").arg(paths.size()));

    auto serverSession = std::make_shared<Session>(paths);
    auto clientSession = std::make_shared<Session>(QList<QPair<uint32_t, QByteArray>>());
    DemoServer server(serverSession, printer, changed);
    server.run(QStringLiteral("127.0.0.1"), 0);
    if (!server.waitListening(timeoutMs)) {
        printer.line(QStringLiteral("server: could not listen"));
        return 1;
    }
    printer.line(QStringLiteral("server: listening on 127.0.0.1:%1").arg(server.port()));

    auto client = std::make_shared<DemoConnection>(nullptr, false, clientSession, printer, changed);
    client->connectToHost(QStringLiteral("127.0.0.1"), server.port());

    auto learntAll = [&] {
        std::lock_guard<std::mutex> lock(clientSession->mutex);
        return clientSession->learnt.size() == paths.size() && serverSession->batchesReceived > 0;
    };
    bool done = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        done = progress.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [&] { return learntAll(); });
    }
    if (done) {
        std::lock_guard<std::mutex> lock(clientSession->mutex);
        printer.line(QStringLiteral("client: learnt the server's paths:"));
        for (const auto& path : paths)
            printer.line(QStringLiteral("  %1 -> %2")
                             .arg(path.first)
                             .arg(QString::fromUtf8(clientSession->learnt.lookup(path.first))));
    } else {
        printer.line(QStringLiteral("demo: the exchange did not complete in time"));
    }

    client->stop();
    client.reset();
    server.stop(true);
    return done ? 0 : 1;
}

} // namespace DovelTool
