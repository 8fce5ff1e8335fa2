#include "BenchCommand.h"

#include "BenchReport.h"
#include "BenchWorkloads.h"
#include "CommandLine.h"

namespace DovelTool {

namespace {

struct Workload {
    const char* name;
    BenchWorkload run;
};

const Workload Workloads[] = {
    {"updates", runUpdatesBench}, {"coalesce", runUpdatesBench}, {"latency", runLatencyBench},
    {"initial", runInitialBench}, {"fanout", runUpdatesBench},   {"files", runFilesBench},
};

bool parseCount(const CommandLine& line, const QString& option, int minimum, int& out,
                QString& error) {
    if (!line.isSet(option))
        return true;
    bool ok = false;
    const int value = line.value(option).toInt(&ok);
    if (!ok || value < minimum) {
        error = QStringLiteral("--%1 needs a whole number of at least %2, not '%3'")
                    .arg(option)
                    .arg(minimum)
                    .arg(line.value(option));
        return false;
    }
    out = value;
    return true;
}

} // namespace

QStringList BenchOptions::peerArguments(int port, int index) const {
    QStringList words{QStringLiteral("bench"),     workload,
                      QStringLiteral("--peer"),    QStringLiteral("127.0.0.1:%1").arg(port),
                      QStringLiteral("--index"),   QString::number(index),
                      QStringLiteral("--seconds"), QString::number(seconds),
                      QStringLiteral("--trips"),   QString::number(trips)};
    if (attributes > 0)
        words << QStringLiteral("--attributes") << QString::number(attributes);
    if (clients > 0)
        words << QStringLiteral("--clients") << QString::number(clients);
    if (!scratch.isEmpty())
        words << QStringLiteral("--scratch") << scratch;
    if (reconnect)
        words << QStringLiteral("--reconnect");
    return words;
}

int runBench(const QStringList& args) {
    CommandLine line(
        QStringLiteral("bench"), QStringLiteral("WORKLOAD [OPTIONS]"),
        QStringLiteral("Measures a server and its clients, each a process of its own on "
                       "loopback, and prints\nthe figures and whether each target is met."));
    line.addArgument(QStringLiteral("WORKLOAD"),
                     QStringLiteral("updates, coalesce, latency, initial, fanout or files"));
    line.addOption(QStringLiteral("seconds"), QStringLiteral("S"),
                   QStringLiteral("how long updates, coalesce and fanout run (default 5)"));
    line.addOption(QStringLiteral("attributes"), QStringLiteral("N"),
                   QStringLiteral("attributes of the tree (initial: default 1000000)"));
    line.addOption(QStringLiteral("clients"), QStringLiteral("K"),
                   QStringLiteral("clients of fanout (default 16)"));
    line.addOption(QStringLiteral("trips"), QStringLiteral("N"),
                   QStringLiteral("round trips of latency (default 10000)"));
    line.addOption(QStringLiteral("scratch"), QStringLiteral("DIR"),
                   QStringLiteral("files: work in DIR instead of a temporary folder"));
    line.addOption(QStringLiteral("reconnect"), QString(),
                   QStringLiteral("initial: then the server drops the client, which reconnects "
                                  "holding the whole tree, and that second copy is timed too"));
    line.addOption(QStringLiteral("json"), QString(),
                   QStringLiteral("one JSON object per line per figure"));
    line.addOption(QStringLiteral("peer"), QStringLiteral("HOST:PORT"),
                   QStringLiteral("(internal) run as a client of the benchmark's server"));
    line.addOption(QStringLiteral("index"), QStringLiteral("I"),
                   QStringLiteral("(internal) which client this peer is"));
    const int parsed = line.parseOrExit(args, 1, 1, QStringLiteral("WORKLOAD"));
    if (parsed >= 0)
        return parsed;

    BenchOptions options;
    options.workload = line.positional().first();
    options.json = line.isSet(QStringLiteral("json"));
    options.scratch = line.value(QStringLiteral("scratch"));
    options.reconnect = line.isSet(QStringLiteral("reconnect"));
    QString error;
    if (line.isSet(QStringLiteral("seconds")) &&
        !CommandLine::parseSeconds(QStringLiteral("seconds"), line.value(QStringLiteral("seconds")),
                                   options.seconds, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));
    if (!parseCount(line, QStringLiteral("attributes"), 1, options.attributes, error) ||
        !parseCount(line, QStringLiteral("clients"), 1, options.clients, error) ||
        !parseCount(line, QStringLiteral("trips"), 1, options.trips, error) ||
        !parseCount(line, QStringLiteral("index"), 0, options.peerIndex, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));
    if (line.isSet(QStringLiteral("peer")) &&
        !CommandLine::parseAddress(line.value(QStringLiteral("peer")), false, options.peerHost,
                                   options.peerPort, error))
        return CommandLine::fail(CommandLine::UsageError, line.usageLine(error));

    for (const Workload& workload : Workloads) {
        if (options.workload != QLatin1String(workload.name))
            continue;
        BenchReport report;
        const int status = workload.run(options, report);
        // A peer reports to the server as JSON whatever the options.
        report.print(options.json || options.isPeer());
        return status;
    }
    return CommandLine::fail(
        CommandLine::UsageError,
        line.usageLine(QStringLiteral("unknown workload '%1'").arg(options.workload)));
}

} // namespace DovelTool
