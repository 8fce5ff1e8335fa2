#include "QueryTree.h"

#include "PathValues.h"
#include "ReadBack.h"
#include "TreeJson.h"

#include "Dovel/Limits.h"
#include "Dovel/sync/QueryWire.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/Node.h"

#include <QElapsedTimer>

#include <algorithm>
#include <memory>

namespace DovelTool {

using Dovel::QueryClient;
namespace Query = Dovel::Query;

namespace {

// Adds the attributes of `entries` under `root`, with their values when they carry them;
// entries of types this side does not know are left out, as a copy leaves them out.
void buildTree(const std::vector<Query::Entry>& entries, Tessel::Node& root,
               const Dovel::TypeRegistry& types) {
    for (const Query::Entry& entry : entries) {
        // What a server names is checked as a path we would send (a hostile one could
        // make us build deep chains of nodes).
        QString ignored;
        if (!PathValues::checkPaths({QString::fromUtf8(entry.path)}, ignored))
            continue;
        std::unique_ptr<Tessel::Attribute> attribute(types.createAttribute(entry.typeCode));
        if (!attribute)
            continue;
        if (!entry.value.isEmpty() &&
            !Query::decodeValue(types, entry.typeCode, entry.value, *attribute))
            continue;
        QList<QByteArray> names = entry.path.split('/');
        const QByteArray leaf = names.takeLast();
        Tessel::Node* parent = Dovel::findOrCreateNode(names, &root, nullptr, QByteArray());
        if (parent && !parent->attribute(leaf) && parent->addAttribute(leaf, attribute.get()))
            attribute.release(); // its node owns it
    }
}

// What the server holds once `values` are in: the attributes they wrote in `root`.
std::vector<Expectation> sentValues(Tessel::Node& root, const PathValues& values,
                                    const TreeJson& json) {
    std::vector<Expectation> sent;
    const auto add = [&](Tessel::Attribute& attribute, const QByteArray& path) {
        QJsonValue value;
        if (json.toJson(attribute, value))
            sent.push_back({path, value});
    };
    for (const PathValues::Entry& entry : values.entries()) {
        Tessel::Attribute* at = Dovel::attributeAt(root, entry.path);
        if (Tessel::Node* node = Tessel::asNode(at))
            Dovel::walkAttributesWithPath(*node, [&](Tessel::Attribute& a, const QByteArray& p) {
                add(a, entry.path + '/' + p);
            });
        else if (at)
            add(*at, entry.path);
    }
    return sent;
}

// Why the server gave no answer, as the one line the commands end with.
int noAnswer(const ClientTarget& target, const QueryClient& client) {
    return CommandLine::fail(CommandLine::Failure, QStringLiteral("%1: %2").arg(
                                                       target.address(), client.failureReason()));
}

// The command's time-out, spent across its steps: the connection, the questions and, for
// a server without queries, the ordinary client that takes over.
class Deadline {
public:
    explicit Deadline(const ClientTarget& target) : target(target) { clock.start(); }
    int ms() const { return int(std::max<qint64>(0, target.milliseconds() - clock.elapsed())); }
    // `target` with what is left of its time-out.
    ClientTarget rest() const {
        ClientTarget left = target;
        left.seconds = std::max(0.001, ms() / 1000.0);
        return left;
    }

private:
    const ClientTarget& target;
    QElapsedTimer clock;
};

// How long the first question waits for its answer before the server is taken for one
// without queries: ours answers at once, another may never answer a module it lacks.
constexpr int FirstAnswerMs = 3000;

// openClient's verdict for a server that may take an ordinary client where it refused
// the light one (a login refused: it may refuse the version line's suffix).
constexpr int TryOrdinary = -2;

// Connects; -1 when the client is open, TryOrdinary, else the exit status (the line
// written).
int openClient(const ClientTarget& target, QueryClient& client, const Deadline& deadline) {
    if (client.open(target.host, target.port, deadline.ms()))
        return -1;
    if (client.failureKind() == Dovel::PeerFailure::LoginRefused)
        return TryOrdinary;
    return noAnswer(target, client);
}

// The line for a write or removal the server refused, naming the path and why.
QString refusal(const ClientTarget& target, const Query::Reply& reply, const QByteArray& path,
                Tessel::Node& held, const TreeJson& json) {
    const QString where = QString::fromUtf8(path);
    const QString server = target.address();
    const QByteArray other = reply.entries.empty() ? QByteArray() : reply.entries.front().path;
    // Every path of a request has a name: an answer that names none is the server's error,
    // unless it is about the whole request (a refusal of every removal, a malformed one).
    const bool wholeRequest = reply.index == uint32_t(-1) &&
                              (reply.status == Query::Refused || reply.status == Query::Invalid);
    if (path.isEmpty() && !wholeRequest)
        return QStringLiteral("%1 answered for item %2, which the request does not have "
                              "(status %3)")
            .arg(server)
            .arg(reply.index)
            .arg(reply.status);
    switch (reply.status) {
    case Query::NotFound:
        return target.lacks(where);
    case Query::Refused: {
        if (reply.index == uint32_t(-1))
            return QStringLiteral("%1 does not let its clients remove what it holds").arg(server);
        Tessel::Attribute* at = Dovel::attributeAt(held, path);
        QJsonValue value;
        if (at && !Tessel::asNode(at) && json.toJson(*at, value))
            return QStringLiteral("%1: the server holds %2 (it refused the change)")
                .arg(where, QString::fromUtf8(TreeJson::valueText(value)));
        return QStringLiteral("%1: %2 refused the change (it takes none there)").arg(where, server);
    }
    case Query::TypeMismatch: {
        QString type;
        const Dovel::TypeRegistry types;
        std::unique_ptr<Tessel::Attribute> sample(
            types.createAttribute(reply.entries.empty() ? 0 : reply.entries.front().typeCode));
        if (sample)
            type = json.typeName(*sample);
        if (type.isEmpty())
            return QStringLiteral("%1: %2 holds it as another type").arg(where, server);
        return QStringLiteral("%1: %2 holds it as %3 now (another client made it first)")
            .arg(where, server, type);
    }
    case Query::PathClash:
        if (other == path)
            return QStringLiteral("%1: %2 holds a node there").arg(where, server);
        return QStringLiteral("%1: %2 is a value, not a node").arg(where, QString::fromUtf8(other));
    case Query::NotCreated:
        return QStringLiteral("%1: %2 creates no new attributes for this client")
            .arg(where, server);
    case Query::Invalid:
        return QStringLiteral("%1: %2 does not take it (it keeps that path to itself, or the "
                              "value is not one of its type)")
            .arg(where, server);
    default:
        return QStringLiteral("%1: %2 did not take it (status %3)")
            .arg(where, server)
            .arg(reply.status);
    }
}

} // namespace

int readQueried(const ClientTarget& target, const QueryAsk& ask,
                const std::function<int(Tessel::Node&)>& read) {
    const Deadline deadline(target);
    Query::Reply reply;
    QueryClient::Outcome outcome = QueryClient::Unsupported;
    {
        QueryClient client(target.key, target.seconds);
        const int opened = openClient(target, client, deadline);
        if (opened >= 0)
            return opened;
        if (opened == -1)
            outcome = ask(client, reply, std::min(deadline.ms(), FirstAnswerMs));
    }
    // No answer, or not one that serves: an ordinary client reads the whole tree (and
    // says why, when that fails too).
    if (outcome != QueryClient::Answered || reply.status != Query::Ok)
        return readServerTree(deadline.rest(), read);
    Tessel::Node root;
    buildTree(reply.entries, root, Dovel::TypeRegistry());
    return read(root);
}

int setQueried(const ClientTarget& target, const PathValues& values) {
    const TreeJson json;
    const Deadline deadline(target);
    // The ordinary client's change, read back, for a server that answers no queries.
    const auto asOrdinaryClient = [&] {
        return changeAndConfirm(
            deadline.rest(),
            [&](Tessel::Node& root, std::vector<Expectation>& expected, QString& problem) {
                if (!values.apply(root, json, problem))
                    return int(CommandLine::UsageError);
                expected = sentValues(root, values, json);
                return -1;
            });
    };
    QueryClient client(target.key, target.seconds);
    const int opened = openClient(target, client, deadline);
    if (opened >= 0)
        return opened;
    if (opened == TryOrdinary)
        return asOrdinaryClient();
    QList<QByteArray> paths;
    for (const PathValues::Entry& entry : values.entries())
        paths.append(entry.path);
    Query::Reply held;
    const QueryClient::Outcome outcome =
        client.read(paths, held, std::min(deadline.ms(), FirstAnswerMs));
    if (outcome != QueryClient::Answered || held.status != Query::Ok) {
        client.close();
        return asOrdinaryClient();
    }

    const Dovel::TypeRegistry types;
    Tessel::Node before;
    buildTree(held.entries, before, types);
    Tessel::Node root;
    buildTree(held.entries, root, types);
    QString problem;
    if (!values.apply(root, json, problem))
        return CommandLine::fail(CommandLine::UsageError, problem);
    std::vector<Query::Entry> entries;
    uint64_t requestBytes = 0;
    for (const QByteArray& path : values.leafPaths()) {
        Tessel::Attribute* at = Dovel::attributeAt(root, path);
        Query::Entry entry;
        entry.path = path;
        if (!at || !Query::encodeValue(types, *at, entry.typeCode, entry.value))
            return CommandLine::fail(
                CommandLine::UsageError,
                QStringLiteral("%1: has no form a server takes").arg(QString::fromUtf8(path)));
        requestBytes += Query::entryBytes(entry);
        entries.push_back(std::move(entry));
    }
    // One request travels in one bundle; values larger than that go the ordinary way,
    // which cuts them into bundles of their own.
    if (requestBytes > uint64_t(Dovel::Limits::MaxQueryReplyBytes)) {
        client.close();
        return asOrdinaryClient();
    }
    Query::Reply answer;
    if (client.write(entries, answer, deadline.ms()) != QueryClient::Answered)
        return noAnswer(target, client);
    if (answer.status == Query::Ok)
        return CommandLine::Success;
    const QByteArray path =
        answer.index < entries.size() ? entries[answer.index].path : QByteArray();
    return CommandLine::fail(CommandLine::Failure, refusal(target, answer, path, before, json));
}

int removeQueried(const ClientTarget& target, const QList<QByteArray>& paths) {
    const Deadline deadline(target);
    QueryClient client(target.key, target.seconds);
    const int opened = openClient(target, client, deadline);
    if (opened >= 0)
        return opened;
    Query::Reply answer;
    switch (opened == TryOrdinary ? QueryClient::Failed
                                  : client.remove(paths, answer, deadline.ms())) {
    case QueryClient::Failed:
        return noAnswer(target, client);
    case QueryClient::Unsupported:
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("%1: the server answers no queries, and an "
                                                "ordinary client cannot remove what it holds")
                                     .arg(target.address()));
    case QueryClient::Answered:
        break;
    }
    if (answer.status == Query::Ok)
        return CommandLine::Success;
    Tessel::Node none;
    const QByteArray path =
        answer.index < uint32_t(paths.size()) ? paths[int(answer.index)] : QByteArray();
    return CommandLine::fail(CommandLine::Failure, refusal(target, answer, path, none, TreeJson()));
}

} // namespace DovelTool
