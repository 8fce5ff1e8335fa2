// `dovel bench files`: folder mirroring as users run it, `dovel files serve` and
// `dovel files pull` as separate processes on loopback, next to an rsync daemon pulled
// by `rsync -a` when rsync is on PATH.
//
// What the timings hold, the same for both tools:
// - From the start of the pulling process to its exit: process start, connection,
//   listing, transfer, and for Dovel the pull's final check of the folder. Best of a few
//   runs, since the machine may be shared.
// - Sources are written once, before any timing, and stay in the page cache; received
//   files go to the page cache too (neither tool syncs them to disk).
// - The server is started before the timing and keeps running across runs. Dovel's
//   server computes its checksums before it listens, as a served folder normally has
//   them cached; its per-connection walk of the folder is timed. The rsync daemon walks
//   the folder per connection and checksums what it sends, both timed.
// - Cold: the destination does not exist. Warm: one untimed pull first, so the
//   destination is identical and the pull's own checksum cache is filled, as on any
//   second run; rsync's quick check (size and time) is its equivalent.
// - The MD5 figure is one core hashing a buffer in memory: the receiver's floor, since
//   every received byte is hashed once.
//
// The child processes keep their settings (Dovel's checksum caches) in the scratch
// folder, never in the user's.
#include "BenchWorkloads.h"

#include "BenchReport.h"
#include "CommandLine.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>

namespace DovelTool {

namespace {

const QString Workload = QStringLiteral("files");
constexpr int Runs = 3;
constexpr int StartMs = 60000;
constexpr int RunMs = 600000;

// Bytes that change from word to word and from seed to seed (xorshift), so that
// nothing along the way can shortcut zeros.
void fillPattern(QByteArray& bytes, uint64_t seed) {
    uint64_t x = 0x9E3779B97F4A7C15ull ^ (seed * 0xBF58476D1CE4E5B9ull);
    auto* words = reinterpret_cast<uint64_t*>(bytes.data());
    const int count = bytes.size() / 8;
    for (int i = 0; i < count; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        words[i] = x;
    }
}

bool writeFile(const QString& path, int64_t size, uint64_t seed) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray chunk(int(std::min<int64_t>(size, 1 << 20) + 7) / 8 * 8, '\0');
    for (int64_t done = 0, block = 0; done < size; ++block) {
        fillPattern(chunk, seed * 1000003u + uint64_t(block));
        const int64_t step = std::min<int64_t>(size - done, chunk.size());
        if (file.write(chunk.constData(), step) != step)
            return false;
        done += step;
    }
    return true;
}

// `count` files of `size` bytes spread over `folders` folders; the total bytes.
int64_t makeFolder(const QString& root, int count, int64_t size, int folders, uint64_t seed) {
    for (int i = 0; i < count; ++i)
        if (!writeFile(root + QStringLiteral("/d%1/f%2.bin").arg(i % folders).arg(i), size,
                       seed + uint64_t(i)))
            return -1;
    return int64_t(count) * size;
}

// Files and bytes below `root`, for checking what a pull left.
QPair<int, int64_t> folderTotals(const QString& root) {
    QPair<int, int64_t> totals{0, 0};
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++totals.first;
        totals.second += it.fileInfo().size();
    }
    return totals;
}

double md5MegabytesPerSecond() {
    QByteArray data(256 << 20, '\0');
    fillPattern(data, 5);
    double best = std::numeric_limits<double>::max();
    for (int run = 0; run < Runs; ++run) {
        QElapsedTimer timer;
        timer.start();
        QCryptographicHash hash(QCryptographicHash::Md5);
        hash.addData(data);
        const QByteArray sum = hash.result();
        best = std::min(best, timer.nsecsElapsed() / 1e9 + (sum.isEmpty() ? 1 : 0));
    }
    return data.size() / 1e6 / best;
}

// A loopback port that was free a moment ago.
int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

// A server process that lives as long as the object; ended with SIGTERM.
class Server {
public:
    explicit Server(const QProcessEnvironment& environment) {
        process.setProcessEnvironment(environment);
    }
    ~Server() {
        if (process.state() == QProcess::NotRunning)
            return;
        process.terminate();
        if (!process.waitForFinished(10000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    QProcess process;
    int port = 0;
};

// `dovel files serve SOURCE` on an ephemeral port; false when it did not listen.
bool startDovelServer(Server& server, const QString& source) {
    server.process.setProgram(QCoreApplication::applicationFilePath());
    server.process.setArguments({QStringLiteral("files"), QStringLiteral("serve"), source,
                                 QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0")});
    server.process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.process.start();
    QElapsedTimer timer;
    timer.start();
    while (!server.process.canReadLine()) {
        if (timer.elapsed() > StartMs || server.process.state() == QProcess::NotRunning)
            return false;
        server.process.waitForReadyRead(50);
    }
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)\n$"))
            .match(QString::fromUtf8(server.process.readLine()));
    server.port = match.hasMatch() ? match.captured(1).toInt() : 0;
    return server.port > 0;
}

// An rsync daemon with one read-only module "src" at `source`; false when it did not
// come up.
bool startRsyncDaemon(Server& server, const QString& rsync, const QString& source,
                      const QString& work) {
    const QString config = work + QStringLiteral("/rsyncd.conf");
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    // The daemon would switch to "nobody" when started by root; it stays who we are.
    file.write(QStringLiteral("use chroot = no\n"
                              "uid = %1\n"
                              "gid = %2\n"
                              "log file = %3/rsyncd.log\n"
                              "[src]\n"
                              "path = %4\n"
                              "read only = yes\n")
                   .arg(::getuid())
                   .arg(::getgid())
                   .arg(work, source)
                   .toUtf8());
    file.close();
    for (int attempt = 0; attempt < 5; ++attempt) {
        const int port = freePort();
        if (port == 0)
            return false;
        server.process.setProgram(rsync);
        server.process.setArguments({QStringLiteral("--daemon"), QStringLiteral("--no-detach"),
                                     QStringLiteral("--config=") + config,
                                     QStringLiteral("--port=%1").arg(port),
                                     QStringLiteral("--address=127.0.0.1")});
        server.process.setProcessChannelMode(QProcess::ForwardedChannels);
        server.process.start();
        if (!server.process.waitForStarted(StartMs))
            return false;
        QElapsedTimer timer;
        timer.start();
        while (server.process.state() == QProcess::Running && timer.elapsed() < StartMs) {
            if (accepts(port)) {
                server.port = port;
                return true;
            }
            server.process.waitForFinished(20);
        }
        // Most likely another process took the port meanwhile: try another.
        server.process.kill();
        server.process.waitForFinished(5000);
    }
    return false;
}

// Runs one pulling process; its seconds, or a negative number when it failed.
double timedRun(const QString& program, const QStringList& args,
                const QProcessEnvironment& environment) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProgram(program);
    process.setArguments(args);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::SeparateChannels);
    QElapsedTimer timer;
    timer.start();
    process.start();
    const bool done = process.waitForFinished(RunMs);
    const double seconds = timer.nsecsElapsed() / 1e9;
    if (!done) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (!done || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        CommandLine::note(QStringLiteral("bench files: '%1 %2' failed: %3")
                              .arg(QFileInfo(program).fileName(), args.join(QLatin1Char(' ')),
                                   QString::fromUtf8(process.readAllStandardError()).trimmed()));
        return -1;
    }
    return seconds;
}

// One way of pulling a folder into a destination.
using Pull = std::function<double(const QString& destination)>;

// The best of `Runs` pulls into `destination`, each checked against the source's
// totals; `cold` removes the destination before each. Negative when one failed.
double bestOf(const Pull& pull, const QString& destination, bool cold,
              QPair<int, int64_t> expected) {
    double best = std::numeric_limits<double>::max();
    for (int run = 0; run < Runs; ++run) {
        if (cold)
            QDir(destination).removeRecursively();
        const double seconds = pull(destination);
        if (seconds < 0)
            return -1;
        if (folderTotals(destination) != expected) {
            CommandLine::note(QStringLiteral("bench files: the pull into %1 left a different "
                                             "folder")
                                  .arg(destination));
            return -1;
        }
        best = std::min(best, seconds);
    }
    if (cold)
        QDir(destination).removeRecursively();
    return best;
}

struct Case {
    QString name;   // "cold_big", "cold_small", "warm"
    QString source; // the folder served
    int64_t bytes = 0;
    QPair<int, int64_t> totals;
};

// Runs every case against one server; adds "<prefix><case>_mb_per_s" for cold cases and
// "<prefix>warm_seconds". False when something failed.
bool measure(const QVector<Case>& cases, const QString& prefix, const QString& work,
             BenchReport& report,
             const std::function<bool(Server&, const QString& source)>& startServer,
             const std::function<Pull(int port, bool warm)>& pullFor,
             const QProcessEnvironment& environment) {
    for (const Case& c : cases) {
        Server server(environment);
        if (!startServer(server, c.source)) {
            CommandLine::note(QStringLiteral("bench files: the %1server for %2 did not start")
                                  .arg(prefix, c.name));
            return false;
        }
        const bool warm = c.name == QLatin1String("warm");
        const QString destination = work + QStringLiteral("/into-") + prefix + c.name;
        const Pull pull = pullFor(server.port, warm);
        if (warm && pull(destination) < 0) // makes the destination identical
            return false;
        const double seconds = bestOf(pull, destination, !warm, c.totals);
        QDir(destination).removeRecursively();
        if (seconds < 0)
            return false;
        if (warm)
            report.add(Workload, prefix + QStringLiteral("warm_seconds"), seconds,
                       QStringLiteral("s"));
        else
            report.add(Workload, prefix + c.name + QStringLiteral("_mb_per_s"),
                       c.bytes / 1e6 / seconds, QStringLiteral("MB/s"));
    }
    return true;
}

} // namespace

int runFilesBench(const BenchOptions& options, BenchReport& report) {
    if (options.isPeer())
        return CommandLine::fail(CommandLine::UsageError,
                                 QStringLiteral("bench files: runs no peers of its own"));
    if (!options.scratch.isEmpty() && !QDir().mkpath(options.scratch))
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("bench files: cannot make %1").arg(options.scratch));
    QTemporaryDir scratch(options.scratch.isEmpty()
                              ? QDir::tempPath() + QStringLiteral("/dovel-bench-files-XXXXXX")
                              : options.scratch + QStringLiteral("/dovel-bench-files-XXXXXX"));
    if (!scratch.isValid())
        return CommandLine::fail(
            CommandLine::Failure,
            QStringLiteral("bench files: no scratch folder (%1)").arg(scratch.errorString()));
    const QString work = QDir(scratch.path()).canonicalPath();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), work + QStringLiteral("/config"));

    report.add(Workload, QStringLiteral("md5_mb_per_s"), md5MegabytesPerSecond(),
               QStringLiteral("MB/s"));

    QVector<Case> cases{
        {QStringLiteral("cold_big"), work + QStringLiteral("/big"), 0, {}},
        {QStringLiteral("cold_small"), work + QStringLiteral("/small"), 0, {}},
        {QStringLiteral("warm"), work + QStringLiteral("/warm"), 0, {}},
    };
    cases[0].bytes = makeFolder(cases[0].source, 4, int64_t(256) << 20, 4, 1);
    cases[1].bytes = makeFolder(cases[1].source, 1000, 64 << 10, 10, 100);
    cases[2].bytes = makeFolder(cases[2].source, 10000, 2048, 100, 10000);
    for (Case& c : cases) {
        if (c.bytes < 0)
            return CommandLine::fail(CommandLine::Failure,
                                     QStringLiteral("bench files: cannot write %1").arg(c.source));
        c.totals = folderTotals(c.source);
    }

    const QString dovel = QCoreApplication::applicationFilePath();
    const bool dovelOk = measure(
        cases, QString(), work, report, startDovelServer,
        [&](int port, bool) -> Pull {
            return [&, port](const QString& destination) {
                return timedRun(dovel,
                                {QStringLiteral("files"), QStringLiteral("pull"),
                                 QStringLiteral("127.0.0.1:%1").arg(port), destination},
                                environment);
            };
        },
        environment);
    if (!dovelOk)
        return CommandLine::Failure;

    const QString rsync = QStandardPaths::findExecutable(QStringLiteral("rsync"));
    bool rsyncOk = false;
    if (rsync.isEmpty()) {
        CommandLine::note(QStringLiteral("bench files: rsync is not on PATH; its figures and the "
                                         "targets against it are skipped"));
    } else {
        rsyncOk = measure(
            cases, QStringLiteral("rsync_"), work, report,
            [&](Server& server, const QString& source) {
                return startRsyncDaemon(server, rsync, source, work);
            },
            [&](int port, bool warm) -> Pull {
                return [&, port, warm](const QString& destination) {
                    QStringList args{QStringLiteral("-a")};
                    if (warm)
                        args << QStringLiteral("--sockopts=TCP_NODELAY");
                    args << QStringLiteral("rsync://127.0.0.1:%1/src/").arg(port)
                         << destination + QLatin1Char('/');
                    return timedRun(rsync, args, environment);
                };
            },
            environment);
    }

    const double md5 = report.value(Workload, QStringLiteral("md5_mb_per_s"));
    const double big = report.value(Workload, QStringLiteral("cold_big_mb_per_s"));
    const double small = report.value(Workload, QStringLiteral("cold_small_mb_per_s"));
    const double warm = report.value(Workload, QStringLiteral("warm_seconds"));
    report.target(Workload, QStringLiteral("target_cold_big_vs_md5"),
                  QStringLiteral("cold big >= 90% of one core's MD5"), big >= 0.9 * md5);
    if (rsyncOk) {
        report.target(Workload, QStringLiteral("target_cold_big_vs_rsync"),
                      QStringLiteral("cold big >= rsync"),
                      big >= report.value(Workload, QStringLiteral("rsync_cold_big_mb_per_s")));
        report.target(Workload, QStringLiteral("target_cold_small_vs_rsync"),
                      QStringLiteral("cold small >= rsync"),
                      small >= report.value(Workload, QStringLiteral("rsync_cold_small_mb_per_s")));
        report.target(Workload, QStringLiteral("target_warm_vs_rsync"),
                      QStringLiteral("warm < rsync's warm"),
                      warm < report.value(Workload, QStringLiteral("rsync_warm_seconds")));
    }
    return rsync.isEmpty() || rsyncOk ? CommandLine::Success : CommandLine::Failure;
}

} // namespace DovelTool
