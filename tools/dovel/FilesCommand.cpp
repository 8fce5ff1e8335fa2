#include "FilesCommand.h"

#include "Access.h"
#include "CommandLine.h"

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FolderPull.h"
#include "Dovel/files/FolderServer.h"

#include "Basalt/SocketError.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace DovelTool {

namespace {

const char Usage[] = "usage: dovel files serve DIR [OPTIONS] | dovel files pull HOST:PORT DIR "
                     "[OPTIONS]";

QString megabytes(int64_t bytes) {
    return QString::number(bytes / 1e6, 'f', 1);
}

int serve(const QStringList& args) {
    CommandLine line(QStringLiteral("files serve"), QStringLiteral("DIR [OPTIONS]"),
                     QStringLiteral("Serves the files of DIR to `dovel files pull`: pullers "
                                    "receive the folder's file list\nand fetch what they lack; "
                                    "nothing is ever written into DIR. Runs until SIGINT\nor "
                                    "SIGTERM (Ctrl-C)."));
    line.addArgument(QStringLiteral("DIR"), QStringLiteral("the folder to serve"));
    addServerOptions(line);
    const int parsed = line.parseOrExit(args, 1, 1, QStringLiteral("DIR"));
    if (parsed >= 0)
        return parsed;
    const QString folder = line.positional().first();
    if (!QFileInfo(folder).isDir())
        return CommandLine::fail(CommandLine::UsageError,
                                 QStringLiteral("'%1' is not a folder").arg(folder));
    ServerSettings settings;
    const int unsound = readServerOptions(line, settings);
    if (unsound >= 0)
        return unsound;

    // Signals are taken by sigwait below; every thread started from here on inherits
    // the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    raiseDescriptorLimit();

    Dovel::FolderServer server(folder);
    server.setLoginKey(settings.key);
    server.setAdmissionRules(settings.admission);
    server.asset().buildFileList(); // the checksums, before the first peer asks
    server.run(settings.host, settings.port);
    if (!server.waitListening(5000))
        return CommandLine::fail(CommandLine::Failure,
                                 QStringLiteral("cannot listen on %1:%2: %3")
                                     .arg(settings.host)
                                     .arg(settings.port)
                                     .arg(Basalt::socketErrorText(server.listenError())));
    warnIfOpen(settings.host, !settings.key.isEmpty(), QStringLiteral("read the folder"));
    CommandLine::print(
        QStringLiteral("listening on %1:%2\n").arg(settings.host).arg(server.port()).toUtf8());

    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    server.shutdown();
    return 0;
}

// Prints progress: a bar rewritten in place on a terminal, otherwise a line at most
// once a second. Called by the pull, one call at a time, until it has finished.
class ProgressPrinter {
public:
    explicit ProgressPrinter(bool terminal) : terminal(terminal) { timer.start(); }

    void show(const Dovel::FolderPull::Progress& p) {
        const bool last = p.filesFetched == p.filesToFetch;
        if (!terminal && !last && printed && timer.elapsed() < 1000)
            return;
        if (terminal && !last && printed && timer.elapsed() < 100)
            return;
        timer.restart();
        printed = true;
        const QString counts = QStringLiteral("%1/%2 files, %3/%4 MB")
                                   .arg(p.filesFetched)
                                   .arg(p.filesToFetch)
                                   .arg(megabytes(p.bytesFetched), megabytes(p.bytesToFetch));
        if (!terminal) {
            std::printf("progress: %s\n", counts.toUtf8().constData());
            std::fflush(stdout);
            return;
        }
        constexpr int Width = 30;
        const double share = p.bytesToFetch > 0   ? double(p.bytesFetched) / p.bytesToFetch
                             : p.filesToFetch > 0 ? double(p.filesFetched) / p.filesToFetch
                                                  : 1.0;
        const int filled = qBound(0, int(share * Width + 0.5), Width);
        std::printf("\r[%s%s] %s", QByteArray(filled, '#').constData(),
                    QByteArray(Width - filled, ' ').constData(), counts.toUtf8().constData());
        std::fflush(stdout);
        barShown = true;
    }

    void end() {
        if (barShown)
            std::printf("\n");
    }

private:
    const bool terminal;
    QElapsedTimer timer;
    bool printed = false;
    bool barShown = false;
};

int pull(const QStringList& args) {
    CommandLine line(QStringLiteral("files pull"), QStringLiteral("HOST:PORT DIR [OPTIONS]"),
                     QStringLiteral("Brings DIR up to date with the folder that `dovel files "
                                    "serve` serves at HOST:PORT:\nfetches the files that are "
                                    "missing or differ in size or MD5, then checks the\nfolder "
                                    "again. Exits 0 when DIR matches the server's list."));
    line.addArgument(QStringLiteral("HOST:PORT"), QStringLiteral("the server"));
    line.addArgument(QStringLiteral("DIR"), QStringLiteral("the local folder (made when missing)"));
    line.addOption(QStringLiteral("delete"), QString(),
                   QStringLiteral("also remove local files that the server does not have"));
    line.addOption(QStringLiteral("timeout"), QStringLiteral("SECONDS"),
                   QStringLiteral("give up on a server that logs in no faster, a download "
                                  "whose parts stop coming for as long, or a server silent for "
                                  "as long and its 5 s between pings (default 60)"));
    addKeyOption(line);
    const int parsed = line.parseOrExit(args, 2, 2, QStringLiteral("HOST:PORT DIR"));
    if (parsed >= 0)
        return parsed;
    QString host;
    int port = 0;
    QString error;
    if (!CommandLine::parseAddress(line.positional().at(0), false, host, port, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));
    double timeout = 60.0;
    if (line.isSet(QStringLiteral("timeout")) &&
        !CommandLine::parseSeconds(QStringLiteral("timeout"), line.value(QStringLiteral("timeout")),
                                   timeout, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));
    const QString folder = line.positional().at(1);
    if (QFileInfo::exists(folder) && !QFileInfo(folder).isDir())
        return CommandLine::fail(CommandLine::UsageError,
                                 QStringLiteral("'%1' is not a folder").arg(folder));
    QByteArray key;
    if (!readLoginKey(line, key, error))
        return CommandLine::fail(CommandLine::Failure, error);

    QElapsedTimer clock;
    clock.start();
    Dovel::AssetBase asset(folder);
    ProgressPrinter printer(isatty(STDOUT_FILENO) == 1);
    auto pull = Dovel::FolderPull::create(asset, line.isSet(QStringLiteral("delete")));
    pull->connection().setLoginKey(key);
    pull->connection().setTimeoutSeconds(timeout);
    pull->setProgressCallback(
        [&printer](const Dovel::FolderPull::Progress& p) { printer.show(p); });
    pull->start(host, port);
    pull->waitFinished(-1);
    pull->shutdown();
    printer.end();

    const Dovel::FolderPull::Result result = pull->result();
    const double seconds = clock.elapsed() / 1000.0;
    if (result.success) {
        const double rate = seconds > 0 ? result.bytesTransferred / 1e6 / seconds : 0.0;
        std::printf("checked %d files, transferred %d files (%lld bytes), deleted %d files in "
                    "%.2f s, %.1f MB/s\n",
                    result.filesChecked, result.filesTransferred,
                    static_cast<long long>(result.bytesTransferred), result.filesDeleted, seconds,
                    rate);
        std::fflush(stdout);
        return CommandLine::Success;
    }
    // One line per problem, then what the pull came to.
    for (const QString& name : result.failed)
        CommandLine::note(QStringLiteral("could not pull %1").arg(name));
    for (const QString& name : result.uncarried)
        CommandLine::note(
            QStringLiteral("not pulled: %1 (the file protocol cannot carry its name)").arg(name));
    const QString why = !result.error.isEmpty()
                            ? result.error
                            : QStringLiteral("%1 of the server's files could not be pulled")
                                  .arg(result.failed.size() + result.uncarried.size());
    if (result.filesTransferred == 0 && result.failed.isEmpty() && result.uncarried.isEmpty())
        return CommandLine::fail(CommandLine::Failure, QStringLiteral("pull failed: %1").arg(why));
    return CommandLine::fail(CommandLine::Failure,
                             QStringLiteral("pull incomplete: %1 (%2 files, %3 bytes transferred)")
                                 .arg(why)
                                 .arg(result.filesTransferred)
                                 .arg(result.bytesTransferred));
}

} // namespace

int runFilesCommand(const QStringList& args) {
    const QString what = args.value(0);
    if (what == QLatin1String("serve"))
        return serve(args.mid(1));
    if (what == QLatin1String("pull"))
        return pull(args.mid(1));
    if (what == QLatin1String("--help") || what == QLatin1String("-h")) {
        CommandLine::print(QByteArray(Usage) +
                           "\n\nMirrors a folder of files: `files serve` shares one, `files "
                           "pull` brings a local\nfolder up to date with it. `dovel files serve "
                           "--help` and `dovel files pull\n--help` describe their options.\n");
        return CommandLine::Success;
    }
    return CommandLine::fail(CommandLine::UsageError,
                             what.isEmpty() ? QStringLiteral("files: missing serve or pull (see "
                                                             "dovel files --help)")
                                            : QStringLiteral("files: unknown command '%1' (see "
                                                             "dovel files --help)")
                                                  .arg(what));
}

} // namespace DovelTool
