#include "Dovel/session/QueryClient.h"

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleReceiver.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/bundle/SymbolRegistryReceiver.h"
#include "Dovel/session/Dovel1Connection.h"
#include "Dovel/session/ProcessDovel2.h"
#include "Dovel/transport/ConnectionThread.h"

#include "Basalt/Trace.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace Dovel {

namespace {

// Symbols a server may define for a light client: ours defines none, and a server that
// takes it for an ordinary client is left as soon as it says it lacks the query module.
constexpr int MaxClientSymbols = 1024;
// How much longer open() waits than the login may take.
constexpr int OpenMarginMs = 1000;

} // namespace

// The client's end of a session, spoken over its ConnectionLink only: a dispatcher with
// the query module's two ends, used under `mutex` by the link's reading thread (answers)
// and the caller's (requests), which waits on `changed` for its answer.
class QueryClient::Link : public ConnectionHandler {
public:
    explicit Link(ConnectionLink& link) : ConnectionHandler(link) {
        dispatcher.addModule(std::make_shared<SymbolRegistryReceiver>(symbols, MaxClientSymbols));
        dispatcher.addModule(std::make_shared<Replies>(*this));
        // A server that takes us for an ordinary client binds the attribute modules
        // before it announces its tree: that is the sign, and the tree is not waited for.
        for (const char* module : {ModuleNames::AttributeNew, ModuleNames::AttributeUpdate,
                                   ModuleNames::AttributeRemove, ModuleNames::OneWayEvent})
            dispatcher.addModule(std::make_shared<OrdinarySession>(*this, module));
        dispatcher.addSender(requests);
        dispatcher.setPeerErrorHandler([this](const QString&, const QString& module) {
            if (module == QLatin1String(ModuleNames::Query))
                unsupported = true; // under `mutex`: called from dispatch
        });
    }
    // Caller's thread: sends one request and waits for its answer.
    Outcome ask(uint32_t operation, const std::function<void(BundleWriterCore&)>& arguments,
                Query::Reply& reply, int ms) {
        std::vector<Bundle> out;
        uint32_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (ended || unsupported)
                return unsupported ? Unsupported : Failed;
            id = ++lastId;
            answers.clear(); // a late answer to an earlier request is of no use now
            BundleWriterCore& writer = requests->writer();
            writer.writeUInt32(id);
            writer.writeUInt32(operation);
            arguments(writer);
            dispatcher.writeUpdates(out);
        }
        Dovel1Connection(link().weakLink()).send(out);
        std::unique_lock<std::mutex> lock(mutex);
        const bool done = changed.wait_for(lock, std::chrono::milliseconds(ms), [&] {
            return answers.count(id) != 0 || unsupported || ended;
        });
        const auto answer = answers.find(id);
        if (answer != answers.end()) {
            reply = std::move(answer->second);
            answers.erase(answer);
            return Answered;
        }
        if (unsupported)
            return Unsupported;
        (void)done;
        return Failed;
    }

    // Caller's thread: waits until logged in or failed.
    bool waitOpen(int ms) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::milliseconds(ms), [&] { return loggedIn || ended; });
        return loggedIn && !ended;
    }
    bool hasEnded() const {
        std::lock_guard<std::mutex> lock(mutex);
        return ended;
    }

protected:
    bool parse(const QString& line) override {
        if (PeerFailure::isFolderListing(line)) {
            link().notePeerFailure({PeerFailure::FolderServer, 0, QString()});
            link().abortConnection();
            return true;
        }
        return processDovel2(
            [this](const std::vector<Bundle>& bundles) {
                std::lock_guard<std::mutex> lock(mutex);
                for (const Bundle& bundle : bundles) {
                    BundleReader reader(bundle);
                    try {
                        dispatcher.dispatchBundle(reader);
                    } catch (const std::exception& e) {
                        Basalt::Trace::warning("QueryClient::parse # %s:%d sent a bundle that "
                                               "does not read: %s",
                                               link().hostName().toUtf8().constData(),
                                               link().port(), e.what());
                    }
                }
                changed.notify_all();
            },
            link(), line);
    }
    void loginFailed() override { end(); }
    void connected() override {
        std::lock_guard<std::mutex> lock(mutex);
        loggedIn = true;
        changed.notify_all();
    }
    void disconnected() override { end(); }
    void connectionFailed() override { end(); }

private:
    // The answers, kept by request id until their request takes them.
    class Replies : public BundleReceiver {
    public:
        explicit Replies(Link& link) : BundleReceiver(ModuleNames::QueryReply), link(link) {}
        void handleBundle(BundleReader& reader) override {
            while (!reader.atEnd()) {
                Query::Reply reply = Query::readReply(reader);
                // Only an awaited answer is kept: a server cannot make us hold others.
                if (reply.id == link.lastId && link.answers.count(reply.id) == 0)
                    link.answers.emplace(reply.id, std::move(reply));
            }
        }

    private:
        Link& link;
    };

    // Bound only by a server that runs an ordinary session for us.
    class OrdinarySession : public BundleReceiver {
    public:
        OrdinarySession(Link& link, const char* module) : BundleReceiver(module), link(link) {}
        void handleBundle(BundleReader&) override {}
        void moduleLoaded(const QMap<QString, QString>&) override {
            link.unsupported = true; // under `mutex`: called from dispatch
        }

    private:
        Link& link;
    };

    void end() {
        std::lock_guard<std::mutex> lock(mutex);
        ended = true;
        changed.notify_all();
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    PeerSymbols symbols;
    BundleDispatcher dispatcher;
    std::shared_ptr<PendingBundleSender> requests =
        std::make_shared<PendingBundleSender>(ModuleNames::Query);
    std::map<uint32_t, Query::Reply> answers;
    uint32_t lastId = 0;
    bool loggedIn = false;
    bool ended = false;
    bool unsupported = false;
};

QueryClient::QueryClient(const QByteArray& loginKey, double timeoutSeconds)
    : connection(ConnectionThread::create<Link>(nullptr, false)),
      link(static_cast<Link*>(connection->handler())) {
    connection->setKeepRetrying(false);
    connection->setVersionSuffix(QString::fromLatin1(Query::ClientSuffix));
    connection->setLoginKey(loginKey);
    connection->setTimeoutSeconds(timeoutSeconds);
}

QueryClient::~QueryClient() {
    close();
}

bool QueryClient::open(const QString& host, int port, int ms) {
    connection->connectToHost(host, port);
    // The connection's own time-out (the login's) ends a silent peer first, with the
    // reason; this wait only backs it up.
    if (link->waitOpen(ms + OpenMarginMs))
        return true;
    const PeerFailure why = connection->lastFailure();
    failure = why.isSet() ? why.text() : QStringLiteral("no answer");
    failedBy = why.kind;
    return false;
}

void QueryClient::close() {
    connection->shutdown();
}

QueryClient::Outcome QueryClient::ask(uint32_t operation,
                                      const std::function<void(BundleWriterCore&)>& arguments,
                                      Query::Reply& reply, int ms) {
    const Outcome outcome = link->ask(operation, arguments, reply, ms);
    const PeerFailure why = connection->lastFailure();
    if (outcome == Failed)
        failure = why.isSet()        ? why.text()
                  : link->hasEnded() ? QStringLiteral("the connection ended before the answer")
                                     : QStringLiteral("no answer");
    return outcome;
}

namespace {
std::function<void(BundleWriterCore&)> pathList(const QList<QByteArray>& paths) {
    return [&paths](BundleWriterCore& writer) {
        writer.writeUInt32(uint32_t(paths.size()));
        for (const QByteArray& path : paths)
            writer.writeBytes(path);
    };
}
} // namespace

QueryClient::Outcome QueryClient::read(const QList<QByteArray>& paths, Query::Reply& reply,
                                       int ms) {
    return ask(Query::Read, pathList(paths), reply, ms);
}

QueryClient::Outcome QueryClient::list(const QByteArray& pattern, Query::Reply& reply, int ms) {
    return ask(
        Query::List, [&](BundleWriterCore& writer) { writer.writeBytes(pattern); }, reply, ms);
}

QueryClient::Outcome QueryClient::write(const std::vector<Query::Entry>& entries,
                                        Query::Reply& reply, int ms) {
    return ask(
        Query::Write,
        [&](BundleWriterCore& writer) {
            writer.writeUInt32(uint32_t(entries.size()));
            for (const Query::Entry& entry : entries)
                Query::writeEntry(writer, entry);
        },
        reply, ms);
}

QueryClient::Outcome QueryClient::remove(const QList<QByteArray>& paths, Query::Reply& reply,
                                         int ms) {
    return ask(Query::Remove, pathList(paths), reply, ms);
}

QString QueryClient::failureReason() const {
    return failure;
}

} // namespace Dovel
