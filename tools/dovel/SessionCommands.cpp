#include "SessionCommands.h"

#include "Access.h"
#include "ChangePrinter.h"
#include "ClientTarget.h"
#include "CommandLine.h"
#include "MirrorClient.h"
#include "PathValues.h"
#include "QueryTree.h"
#include "ReadBack.h"
#include "TreeJson.h"
#include "TreeSaver.h"

#include "Dovel/session/SessionDriver.h"
#include "Dovel/session/SessionServer.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/SocketError.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonValue>

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace DovelTool {

namespace {

// A save that fails at exit is tried again each second this many times.
constexpr int FinalSaveTries = 10;
// How long a stopped client may take to end before the process just exits.
constexpr int StopGraceMs = 2000;

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

// Takes the stop signals on a thread of its own: the first one asks the command to
// stop (stopWithin); should the command not have ended StopGraceMs later, as when its
// tree thread is stuck writing to a reader that stopped reading (a paused pager), the
// process exits with `status`. The signals must be blocked in every thread already.
class StopWatchdog {
public:
    StopWatchdog(const sigset_t& stopSignals, int status)
        : watcher([this, stopSignals, status] { watch(stopSignals, status); }) {}
    ~StopWatchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        changed.notify_all();
        watcher.join();
    }
    // Waits up to `ms` for a stop signal; true once one came.
    bool stopWithin(int ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stop; });
    }

private:
    void watch(const sigset_t& stopSignals, int status) {
        for (;;) {
            timespec slice{0, 100 * 1000000L};
            const int got = sigtimedwait(&stopSignals, nullptr, &slice);
            std::lock_guard<std::mutex> lock(mutex);
            if (done)
                return;
            if (got > 0) {
                stop = true;
                break;
            }
        }
        changed.notify_all();
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::milliseconds(StopGraceMs),
                              [this] { return done; })) {
            std::fflush(stderr);
            // The system call itself: a runtime's _exit (a sanitizer's) may flush the
            // very stream that is stuck first.
            ::syscall(SYS_exit_group, status);
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool stop = false; // guarded by mutex
    bool done = false; // guarded by mutex
    std::thread watcher;
};

QString addressText(const QString& host, int port) {
    return QStringLiteral("%1:%2").arg(host).arg(port);
}

// Every attribute the words wrote under `root` (a plain object's, one by one), with the
// value it holds now.
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
    // Every attribute of this tree is made from JSON, owned by its node: `dovel rm` may
    // remove any of them.
    options.queryMayRemove = true;
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
    CommandLine line(QStringLiteral("dump"),
                     QStringLiteral("HOST:PORT [PATH] [--compact] [--timeout SECONDS]"),
                     QStringLiteral("Connects to a server, waits for its tree and prints it (or "
                                    "the part under PATH)\nas JSON in the tree-file format, which "
                                    "`dovel serve --tree` reads back. Never\nwrites to the "
                                    "server."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATH"),
                     QStringLiteral("only the node (or the value) at PATH; exit 1 when there is "
                                    "none"));
    line.addOption(QStringLiteral("compact"), QString(), QStringLiteral("JSON on one line"));
    ClientTarget target;
    const int parsed = parseClientCommand(line, args, target, 0, 2);
    if (parsed >= 0)
        return parsed;
    const QByteArray path = line.positional().value(1).toUtf8();
    QString error;
    if (!path.isEmpty() && !PathValues::checkPaths({QString::fromUtf8(path)}, error))
        return CommandLine::fail(CommandLine::UsageError, error);
    const QJsonDocument::JsonFormat format =
        line.isSet(QStringLiteral("compact")) ? QJsonDocument::Compact : QJsonDocument::Indented;
    const TreeJson json;
    const auto print = [&](Tessel::Node& root) {
        QByteArray document;
        if (path.isEmpty()) {
            document = json.dumpBytes(root, format);
        } else {
            Tessel::Attribute* at = Dovel::attributeAt(root, path);
            QJsonValue value;
            if (!at || !json.toJson(*at, value))
                return CommandLine::fail(CommandLine::Failure,
                                         target.lacks(QString::fromUtf8(path)));
            document = Tessel::asNode(at)
                           ? TreeJson::printable(QJsonDocument(value.toObject()).toJson(format))
                           : TreeJson::valueText(value); // a value: one line
        }
        if (!document.endsWith('\n'))
            document += '\n';
        CommandLine::print(document);
        return int(CommandLine::Success);
    };
    if (path.isEmpty())
        return readServerTree(target, print);
    // One part: asked for alone.
    const QueryAsk ask = [&](Dovel::QueryClient& client, Dovel::Query::Reply& reply, int ms) {
        return client.read({path}, reply, ms);
    };
    return readQueried(target, ask, print);
}

int runSet(const QStringList& args) {
    CommandLine line(
        QStringLiteral("set"), QStringLiteral("HOST:PORT PATH=VALUE... [--timeout SECONDS]"),
        QStringLiteral(
            "Sets attributes of a server's tree, all or nothing, and exits 0 once the server\n"
            "holds every value; exits 1, naming the path, when the server refused one\n"
            "(read-only, or another client made it first with another type) or did not\n"
            "answer within the time-out. Only the paths named are read from the server.\n"
            "Attributes named id (kept in each process), empty objects and paths longer or\n"
            "deeper than a server takes are refused before connecting (exit 2).\n"
            "\n"
            "VALUE is JSON in the tree-file format: an existing attribute keeps its type and\n"
            "the value is converted to it (a value that does not fit is an error and nothing\n"
            "is sent); a new path becomes an attribute of the type the value implies (1 an\n"
            "int, 1.5 a float, \"text\" a string, true a bool, or {\"@type\": NAME, \"value\":\n"
            "...}). Quote the words for the shell: a/b='\"text\"'. PATH=@FILE reads the\n"
            "value from FILE, PATH=- from standard input."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("PATH=VALUE"),
                     QStringLiteral("slash-separated path of the attribute, and its JSON value "
                                    "(@FILE: from FILE; -: from standard input)"));
    ClientTarget target;
    const int parsed = parseClientCommand(line, args, target);
    if (parsed >= 0)
        return parsed;
    if (line.positional().size() < 2)
        return CommandLine::fail(CommandLine::UsageError,
                                 line.usageLine(QStringLiteral("missing PATH=VALUE")));
    PathValues values;
    QString error;
    if (!values.parse(line.positional().mid(1), error) || !values.checkSendable(error))
        return CommandLine::fail(CommandLine::UsageError, error);
    return setQueried(target, values);
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
    ClientTarget target;
    const int parsed = parseClientCommand(
        line, args, target, 0, 2, QString(),
        QStringLiteral("give up when the first session is not running after SECONDS (default "
                       "10); later losses are waited out"));
    if (parsed >= 0)
        return parsed;
    const QString address = target.address();
    const QString pattern = line.positional().value(1);
    const bool printHeld = line.isSet(QStringLiteral("initial"));
    const ChangePrinter::Format format =
        line.isSet(QStringLiteral("json")) ? ChangePrinter::Json : ChangePrinter::Lines;

    StopWatchdog stopping(blockStopSignals(), CommandLine::Success);
    MirrorClient mirror(target.key, true);
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
    while (!stopping.stopWithin(50)) {
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
        if (!watching && (mirror.hasFailed() || sinceStart.elapsed() >= target.seconds * 1000)) {
            const int status = noSession(target, mirror);
            mirror.stop();
            mirror.driver().call([&] { printer.reset(); });
            return status;
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
