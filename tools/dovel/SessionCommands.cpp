#include "SessionCommands.h"

#include "Access.h"
#include "ChangePrinter.h"
#include "CommandLine.h"
#include "MirrorClient.h"
#include "PathValues.h"
#include "TreeJson.h"
#include "TreeSaver.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/SocketError.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonValue>
#include <QThread>

#include <signal.h>
#include <time.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace DovelTool {

namespace {

constexpr double DefaultTimeoutSeconds = 10.0;
// A save that fails at exit is tried again each second this many times.
constexpr int FinalSaveTries = 10;

// Blocks SIGINT, SIGTERM and SIGHUP (a closed terminal) for the calling thread and every
// thread it starts later, so that they wait for sigwait. Returns the set.
sigset_t blockStopSignals() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    return stopSignals;
}

// Waits up to `ms` for SIGINT or SIGTERM; true when one came.
bool stopSignalWithin(const sigset_t& stopSignals, int ms) {
    timespec wait{ms / 1000, long(ms % 1000) * 1000000L};
    for (;;) {
        const int got = sigtimedwait(&stopSignals, nullptr, &wait);
        if (got > 0)
            return true;
        if (errno != EINTR)
            return false;
    }
}

QString addressText(const QString& host, int port) {
    return QStringLiteral("%1:%2").arg(host).arg(port);
}

QString secondsText(double seconds) {
    return QString::number(seconds, 'g', 6) + QStringLiteral(" s");
}

// The HOST:PORT argument and --timeout of the client commands.
struct Target {
    QString host;
    int port = 0;
    double seconds = DefaultTimeoutSeconds;
};

bool readTarget(const CommandLine& line, bool withTimeout, Target& target, QString& error) {
    if (line.positional().isEmpty()) {
        error = line.usageLine(QStringLiteral("missing HOST:PORT"));
        return false;
    }
    if (!CommandLine::parseAddress(line.positional().first(), false, target.host, target.port,
                                   error))
        return false;
    if (withTimeout && line.isSet(QStringLiteral("timeout")) &&
        !CommandLine::parseSeconds(QStringLiteral("timeout"), line.value(QStringLiteral("timeout")),
                                   target.seconds, error))
        return false;
    return true;
}

// Why the command got no tree: what ended the attempt, or the time-out that did.
int noSession(const Target& target, const MirrorClient& mirror) {
    const QString address = addressText(target.host, target.port);
    if (mirror.hasFailed())
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("%1: %2").arg(address, mirror.failureReason()));
    return CommandLine::fail(
        CommandLine::Failure,
        QStringLiteral("no session with %1 within %2 (%3)")
            .arg(address, secondsText(target.seconds), mirror.failureReason()));
}

const char TimeoutHelp[] = "give up when no session is running after SECONDS (default 10)";

// An attribute `set` wrote, and its value as the tree-file format writes it (which
// carries its type).
struct SentValue {
    QByteArray path;
    QJsonValue value;
};

// Every attribute the words wrote under `root` (a plain object's, one by one).
std::vector<SentValue> sentValues(Tessel::Node& root, const PathValues& values,
                                  const TreeJson& json) {
    std::vector<SentValue> sent;
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

// Why the tree under `root` does not hold what was sent ("PATH: ..."), or an empty
// string when it does. Tree thread.
QString firstDifference(Tessel::Node& root, const std::vector<SentValue>& sent,
                        const TreeJson& json, const QString& holder) {
    for (const SentValue& one : sent) {
        Tessel::Attribute* at = Dovel::attributeAt(root, one.path);
        QJsonValue held;
        if (!at || !json.toJson(*at, held))
            return QStringLiteral("%1: %2 did not take it")
                .arg(QString::fromUtf8(one.path), holder);
        if (held != one.value)
            return QStringLiteral("%1: %2 holds %3")
                .arg(QString::fromUtf8(one.path), holder,
                     QString::fromUtf8(TreeJson::valueText(held)));
    }
    return QString();
}

// Waits until a fresh observer's copy of the server holds every value sent, for at most
// `ms`: the server applies them after reading them, and may refuse some (a read-only
// server, a path another client made with another type). `writer` is the client that
// sent them: a server that refuses a change sends its own value back to it, which ends
// the wait at once. False with `error` saying which path the server does not hold.
bool waitHeld(const Target& target, const QByteArray& key, MirrorClient& writer,
              const std::vector<SentValue>& sent, int ms, QString& error) {
    QElapsedTimer timer;
    timer.start();
    const QString server = addressText(target.host, target.port);
    MirrorClient check(key, true);
    check.connectToHost(target.host, target.port);
    if (!check.waitInitialState(ms)) {
        error = QStringLiteral("sent, but %1 could not be read back (%2)")
                    .arg(server, check.failureReason());
        return false;
    }
    TreeJson json;
    QString refused;
    for (;;) {
        check.driver().call([&] { error = firstDifference(check.node(), sent, json, server); });
        if (error.isEmpty())
            return true;
        writer.driver().call([&] {
            refused = firstDifference(writer.node(), sent, json, QStringLiteral("the server"));
        });
        if (!refused.isEmpty()) {
            error = refused + QStringLiteral(" (it refused the change)");
            return false;
        }
        if (timer.elapsed() >= ms)
            return false;
        QThread::msleep(20);
    }
}

} // namespace

int runServe(const QStringList& args) {
    CommandLine line(
        QStringLiteral("serve"),
        QStringLiteral("[--listen HOST:PORT] [--tree FILE.json] [--save FILE.json] "
                       "[--read-only] [--key-file FILE]"),
        QStringLiteral("Shares a tree with every client that connects, as the master of each\n"
                       "session: clients see its values, and a change that one client makes\n"
                       "reaches the server and every other client. Prints \"listening on\n"
                       "HOST:PORT\" once it listens and runs until SIGINT, SIGTERM or SIGHUP\n"
                       "(Ctrl-C)."));
    line.addOption(QStringLiteral("tree"), QStringLiteral("FILE.json"),
                   QStringLiteral("the tree to share, in the tree-file format "
                                  "(docs/tree-format.md); empty without it"));
    line.addOption(
        QStringLiteral("save"), QStringLiteral("FILE.json"),
        QStringLiteral("keep the tree, with the clients' changes, saved in FILE: while it "
                       "changes and on exit, each time whole (a crash leaves the "
                       "last save)"));
    line.addOption(QStringLiteral("save-interval"), QStringLiteral("SECONDS"),
                   QStringLiteral("with --save, save at most this often while the tree changes "
                                  "(default 10)"));
    line.addOption(QStringLiteral("read-only"), QString(),
                   QStringLiteral("clients may read the tree but not change it: their changes, "
                                  "additions, removals and events are refused and their copy "
                                  "put back to the server's"));
    line.addOption(QStringLiteral("writable"), QStringLiteral("PATTERN"),
                   QStringLiteral("with --read-only (which it implies), clients may still change "
                                  "the paths and raise the events that match PATTERN (`*` one "
                                  "component, `**` any depth, as 'ui/**'); may be repeated"));
    addServerOptions(line);
    const int parsed = line.parseOrExit(args, 0, 0);
    if (parsed >= 0)
        return parsed;
    ServerSettings settings;
    const int unsound = readServerOptions(line, settings);
    if (unsound >= 0)
        return unsound;
    Dovel::SessionServer::Options options;
    options.admission = settings.admission;
    options.loginKey = settings.key;
    options.writable = line.values(QStringLiteral("writable"));
    options.readOnly = line.isSet(QStringLiteral("read-only")) || !options.writable.isEmpty();
    const QString host = settings.host;
    const int port = settings.port;
    QString error;
    QByteArray treeText;
    const QString treeFile = line.value(QStringLiteral("tree"));
    if (!treeFile.isEmpty()) {
        QFile file(treeFile);
        if (!file.open(QIODevice::ReadOnly))
            return CommandLine::fail(
                CommandLine::Failure,
                QStringLiteral("cannot read %1: %2").arg(treeFile, file.errorString()));
        treeText = file.readAll();
    }
    const QString saveFile = line.value(QStringLiteral("save"));
    double saveInterval = 10.0;
    if (line.isSet(QStringLiteral("save-interval")) &&
        !CommandLine::parseSeconds(QStringLiteral("save-interval"),
                                   line.value(QStringLiteral("save-interval")), saveInterval,
                                   error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));

    // Before the first thread starts: every thread inherits the blocked signals.
    const sigset_t stopSignals = blockStopSignals();
    raiseDescriptorLimit();

    Dovel::RemoteNode root(nullptr, QByteArrayLiteral("root"));
    Dovel::SessionDriver driver;
    TreeJson json;
    bool loaded = true;
    if (!treeFile.isEmpty())
        driver.call([&] { loaded = json.load(treeText, root, &error); });
    if (!loaded)
        return CommandLine::fail(CommandLine::UsageError,
                                 QStringLiteral("%1: %2").arg(treeFile, error));

    Dovel::SessionServer server(root, &driver, options);
    if (!server.listen(port, host))
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("cannot listen on %1: %2")
                .arg(addressText(host, port), Basalt::socketErrorText(server.listenError())));
    warnIfOpen(host, !options.loginKey.isEmpty(),
               options.readOnly ? QStringLiteral("read the tree")
                                : QStringLiteral("change the tree"));
    CommandLine::print(
        QStringLiteral("listening on %1\n").arg(addressText(host, server.port())).toUtf8());

    std::unique_ptr<TreeSaver> saver;
    if (!saveFile.isEmpty())
        saver = std::make_unique<TreeSaver>(root, driver, saveFile);
    const int waitMs = saver ? int(saveInterval * 1000) : 60000;
    while (!stopSignalWithin(stopSignals, waitMs))
        if (saver)
            saver->saveIfChanged();
    server.shutdown();
    if (!saver)
        return CommandLine::Success;
    // The last save is tried for a while (a full disk may get room), or until another
    // signal says to give up.
    for (int tries = 0; !saver->saveIfChanged(); ++tries)
        if (tries == FinalSaveTries || stopSignalWithin(stopSignals, 1000))
            return CommandLine::fail(CommandLine::Failure,
                                     saver->lastError() +
                                         QStringLiteral("; the changes since the last save are "
                                                        "lost"));
    return CommandLine::Success;
}

int runDump(const QStringList& args) {
    CommandLine line(QStringLiteral("dump"), QStringLiteral("HOST:PORT [--timeout SECONDS]"),
                     QStringLiteral("Connects to a server, waits for its tree and prints it as "
                                    "JSON in the tree-file\nformat, which `dovel serve --tree` "
                                    "reads back."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   QString::fromLatin1(TimeoutHelp));
    addKeyOption(line);
    const int parsed = line.parseOrExit(args, 0, 1);
    if (parsed >= 0)
        return parsed;
    Target target;
    QString error;
    if (!readTarget(line, true, target, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    QByteArray key;
    if (!readLoginKey(line, key, error))
        return CommandLine::fail(CommandLine::Failure, error);

    MirrorClient mirror(key, true);
    mirror.connectToHost(target.host, target.port);
    if (!mirror.waitInitialState(int(target.seconds * 1000)))
        return noSession(target, mirror);
    QByteArray document;
    TreeJson json;
    mirror.driver().call([&] { document = json.dumpBytes(mirror.node()); });
    mirror.stop();
    CommandLine::print(document);
    return CommandLine::Success;
}

int runSet(const QStringList& args) {
    CommandLine line(
        QStringLiteral("set"), QStringLiteral("HOST:PORT PATH=VALUE... [--timeout SECONDS]"),
        QStringLiteral(
            "Connects to a server, waits for its tree, sets the attributes and exits 0 once a\n"
            "second connection reads every value back from the server; exits 1, naming the\n"
            "path, when the server refused one or did not take it within the time-out.\n"
            "Attributes named id (kept in each process), empty objects and paths longer or\n"
            "deeper than a server takes are refused before connecting (exit 2).\n"
            "\n"
            "VALUE is JSON in the tree-file format: an existing attribute keeps its type and\n"
            "the value is converted to it (a value that does not fit is an error and nothing\n"
            "is sent); a new path becomes an attribute of the type the value implies (1 an\n"
            "int, 1.5 a float, \"text\" a string, true a bool, or {\"@type\": NAME, \"value\":\n"
            "...}). Quote the words for the shell: a/b='\"text\"'."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATH=VALUE"),
                     QStringLiteral("slash-separated path of the attribute, and its JSON value"));
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   QString::fromLatin1(TimeoutHelp));
    addKeyOption(line);
    const int parsed = line.parseOrExit(args);
    if (parsed >= 0)
        return parsed;
    Target target;
    QString error;
    if (!readTarget(line, true, target, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    if (line.positional().size() < 2)
        return CommandLine::fail(CommandLine::UsageError,
                                 line.usageLine(QStringLiteral("missing PATH=VALUE")));
    PathValues values;
    if (!values.parse(line.positional().mid(1), error) || !values.checkSendable(error))
        return CommandLine::fail(CommandLine::UsageError, error);
    QByteArray key;
    if (!readLoginKey(line, key, error))
        return CommandLine::fail(CommandLine::Failure, error);

    MirrorClient mirror(key);
    mirror.connectToHost(target.host, target.port);
    const int ms = int(target.seconds * 1000);
    if (!mirror.waitInitialState(ms))
        return noSession(target, mirror);
    TreeJson json;
    bool applied = false;
    uint64_t sentBefore = 0;
    std::vector<SentValue> sent;
    mirror.driver().call([&] {
        sentBefore = mirror.batchesSent();
        applied = values.apply(mirror.node(), json, error);
        if (applied)
            sent = sentValues(mirror.node(), values, json);
    });
    if (!applied) {
        mirror.stop();
        return CommandLine::fail(CommandLine::UsageError, error);
    }
    QElapsedTimer clock;
    clock.start();
    if (!mirror.waitWritten(sentBefore, ms)) {
        mirror.stop();
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("the connection to %1 ended before the change "
                                                "was sent")
                                     .arg(addressText(target.host, target.port)));
    }
    const bool held =
        waitHeld(target, key, mirror, sent, int(qMax<qint64>(0, ms - clock.elapsed())), error);
    mirror.stop();
    if (!held)
        return CommandLine::fail(CommandLine::Failure, error);
    return CommandLine::Success;
}

int runWatch(const QStringList& args) {
    CommandLine line(
        QStringLiteral("watch"),
        QStringLiteral("HOST:PORT [PATTERN] [--json] [--initial] [--timeout SECONDS]"),
        QStringLiteral(
            "Connects to a server and prints one line per change of its tree as it\n"
            "comes: \"PATH = VALUE\" for a new value, \"+ PATH = VALUE\" for an added\n"
            "attribute, \"- PATH\" for a removed one (VALUE as JSON; a PATH that holds a\n"
            "control character, a quote, \" = \" or a leading \"+ \" or \"- \" is written as a\n"
            "JSON string). Runs until SIGINT or SIGTERM (Ctrl-C); when the server goes away\n"
            "it says so on standard error and reconnects. Exits 1 at once when the first\n"
            "attempt fails (refused, not a tree server, the key refused). Never writes to\n"
            "the server."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATTERN"),
                     QStringLiteral("only paths that match: `*` one name, `**` any depth, as "
                                    "'scene/**' (default: every path)"));
    line.addOption(QStringLiteral("json"), QString(),
                   QStringLiteral("one JSON object per line instead: {\"event\": \"set\", "
                                  "\"added\" or \"removed\", \"path\": PATH, \"value\": "
                                  "VALUE}"));
    line.addOption(QStringLiteral("initial"), QString(),
                   QStringLiteral("first print every attribute the server holds, as added"));
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   QStringLiteral("give up when the first session is not running after SECONDS "
                                  "(default 10); later losses are waited out"));
    addKeyOption(line);
    const int parsed = line.parseOrExit(args, 0, 2);
    if (parsed >= 0)
        return parsed;
    Target target;
    QString error;
    if (!readTarget(line, true, target, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    QByteArray key;
    if (!readLoginKey(line, key, error))
        return CommandLine::fail(CommandLine::Failure, error);
    const QString address = addressText(target.host, target.port);
    const QString pattern = line.positional().value(1);
    const bool printHeld = line.isSet(QStringLiteral("initial"));
    const ChangePrinter::Format format =
        line.isSet(QStringLiteral("json")) ? ChangePrinter::Json : ChangePrinter::Lines;

    const sigset_t stopSignals = blockStopSignals();
    MirrorClient mirror(key, true);
    std::unique_ptr<ChangePrinter> printer;
    mirror.driver().call([&] {
        printer = std::make_unique<ChangePrinter>(
            mirror.node(), [](const QByteArray& text) { CommandLine::print(text); }, format);
        if (!pattern.isEmpty())
            printer->setFilter(pattern);
    });
    mirror.connectToHost(target.host, target.port);

    const Dovel::SessionStats& stats = mirror.client().stats();
    QElapsedTimer sinceStart;
    sinceStart.start();
    bool watching = false;
    bool connected = false;
    while (!stopSignalWithin(stopSignals, 50)) {
        if (!watching && (mirror.hasFailed() || sinceStart.elapsed() >= target.seconds * 1000)) {
            const int status = noSession(target, mirror);
            mirror.stop();
            mirror.driver().call([&] { printer.reset(); });
            return status;
        }
        if (!watching && stats.batchesApplied.load() > 0 && mirror.waitInitialState(0)) {
            int count = 0;
            mirror.driver().call([&] { count = printer->start(printHeld); });
            watching = true;
            connected = true;
            CommandLine::note(QStringLiteral("watching %1 (%2 attribute%3)")
                                  .arg(address)
                                  .arg(count)
                                  .arg(count == 1 ? "" : "s"));
            continue;
        }
        const bool now = mirror.client().isConnected();
        if (watching && connected && !now)
            CommandLine::note(
                QStringLiteral("lost the connection to %1, reconnecting").arg(address));
        if (watching && !connected && now)
            CommandLine::note(QStringLiteral("connected to %1 again").arg(address));
        if (watching)
            connected = now;
    }
    mirror.stop();
    mirror.driver().call([&] { printer.reset(); });
    return CommandLine::Success;
}

} // namespace DovelTool
