#include "FilesCommand.h"

#include "Dovel/files/AssetBase.h"
#include "Dovel/files/FolderPullConnection.h"
#include "Dovel/files/FolderServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace DovelTool {

namespace {

const char Usage[] = "usage: dovel files serve DIR [--listen HOST:PORT] | "
                     "dovel files pull HOST:PORT DIR [--delete]";

int usageError(const QString& text) {
    std::fprintf(stderr, "dovel files: %s\n", text.toUtf8().constData());
    return 2;
}

struct Address {
    QString host;
    int port = 0;
};

// HOST:PORT with a non-empty host and a port in range (0 only when allowed).
bool parseAddress(const QString& text, bool allowAnyPort, Address& out) {
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0)
        return false;
    bool ok = false;
    const int port = text.mid(colon + 1).toInt(&ok);
    if (!ok || port < (allowAnyPort ? 0 : 1) || port > 65535)
        return false;
    out.host = text.left(colon);
    out.port = port;
    return true;
}

// Splits words into positional arguments and options; --name=value is one option
// with a value, --name VALUE takes the next word when the option wants a value.
struct Words {
    QStringList positional;
    QString listen;
    bool listenGiven = false;
    bool deleteExtra = false;
    QString error;
};

Words splitWords(const QStringList& args, bool serve) {
    Words words;
    for (int i = 0; i < args.size(); ++i) {
        const QString& word = args[i];
        if (!word.startsWith(QLatin1String("--"))) {
            words.positional.append(word);
            continue;
        }
        if (serve && word == QLatin1String("--listen")) {
            if (i + 1 >= args.size()) {
                words.error = QStringLiteral("--listen takes HOST:PORT");
                return words;
            }
            words.listen = args[++i];
            words.listenGiven = true;
        } else if (serve && word.startsWith(QLatin1String("--listen="))) {
            words.listen = word.mid(9);
            words.listenGiven = true;
        } else if (!serve && word == QLatin1String("--delete")) {
            words.deleteExtra = true;
        } else {
            words.error = QStringLiteral("unknown option '%1'").arg(word);
            return words;
        }
    }
    return words;
}

QString megabytes(int64_t bytes) {
    return QString::number(bytes / 1e6, 'f', 1);
}

int serve(const QStringList& args) {
    const Words words = splitWords(args, true);
    if (!words.error.isEmpty())
        return usageError(words.error);
    if (words.positional.size() != 1)
        return usageError(QString::fromLatin1(Usage));
    Address address{QStringLiteral("0.0.0.0"), 5000};
    if (words.listenGiven && !parseAddress(words.listen, true, address))
        return usageError(QStringLiteral("bad address '%1', expected HOST:PORT").arg(words.listen));
    const QString folder = words.positional.first();
    if (!QFileInfo(folder).isDir())
        return usageError(QStringLiteral("'%1' is not a folder").arg(folder));

    // Signals are taken by sigwait below; every thread started from here on inherits
    // the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Dovel::FolderServer server(folder);
    server.asset().buildFileList(); // the checksums, before the first peer asks
    server.run(address.host, address.port);
    if (!server.waitListening(5000)) {
        std::fprintf(stderr, "dovel files: cannot listen on %s:%d\n",
                     address.host.toUtf8().constData(), address.port);
        return 1;
    }
    std::printf("listening on %s:%d\n", address.host.toUtf8().constData(), server.port());
    std::fflush(stdout);

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

    void show(const Dovel::FolderPullConnection::Progress& p) {
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
    const Words words = splitWords(args, false);
    if (!words.error.isEmpty())
        return usageError(words.error);
    if (words.positional.size() != 2)
        return usageError(QString::fromLatin1(Usage));
    Address address;
    if (!parseAddress(words.positional[0], false, address))
        return usageError(
            QStringLiteral("bad address '%1', expected HOST:PORT").arg(words.positional[0]));
    const QString folder = words.positional[1];
    if (QFileInfo::exists(folder) && !QFileInfo(folder).isDir())
        return usageError(QStringLiteral("'%1' is not a folder").arg(folder));

    QElapsedTimer clock;
    clock.start();
    Dovel::AssetBase asset(folder);
    asset.removeLeftoverParts();
    ProgressPrinter printer(isatty(STDOUT_FILENO) == 1);
    auto connection = std::make_shared<Dovel::FolderPullConnection>(asset, words.deleteExtra);
    connection->setProgressCallback(
        [&printer](const Dovel::FolderPullConnection::Progress& p) { printer.show(p); });
    connection->start(address.host, address.port);
    connection->waitFinished(-1);
    connection->shutdown();
    printer.end();

    const Dovel::FolderPullConnection::Result result = connection->result();
    const double seconds = clock.elapsed() / 1000.0;
    const double rate = seconds > 0 ? result.bytesTransferred / 1e6 / seconds : 0.0;
    std::printf("checked %d files, transferred %d files (%lld bytes), deleted %d files in "
                "%.2f s, %.1f MB/s\n",
                result.filesChecked, result.filesTransferred,
                static_cast<long long>(result.bytesTransferred), result.filesDeleted, seconds,
                rate);
    std::fflush(stdout);
    if (result.success)
        return 0;
    if (!result.error.isEmpty())
        std::fprintf(stderr, "dovel files: pull failed: %s\n", result.error.toUtf8().constData());
    for (const QString& name : result.failed)
        std::fprintf(stderr, "failed: %s\n", name.toUtf8().constData());
    return 1;
}

} // namespace

int runFilesCommand(const QStringList& args) {
    if (args.isEmpty())
        return usageError(QString::fromLatin1(Usage));
    if (args.first() == QLatin1String("serve"))
        return serve(args.mid(1));
    if (args.first() == QLatin1String("pull"))
        return pull(args.mid(1));
    if (args.first() == QLatin1String("--help") || args.first() == QLatin1String("-h")) {
        std::printf("%s\n", Usage);
        return 0;
    }
    return usageError(QStringLiteral("unknown command '%1'").arg(args.first()));
}

} // namespace DovelTool
