#include "BenchOptions.h"

namespace QtroBench {

namespace {

const QStringList Workloads{QStringLiteral("updates"), QStringLiteral("latency"),
                            QStringLiteral("initial")};

} // namespace

int BenchOptions::attributeCount() const {
    if (attributes > 0)
        return attributes;
    return workload == QLatin1String("initial") ? 1000000 : 10000;
}

QStringList BenchOptions::replicaArguments(const QString& hostUrl) const {
    return {workload,
            QStringLiteral("--peer"),
            hostUrl,
            QStringLiteral("--seconds"),
            QString::number(seconds),
            QStringLiteral("--attributes"),
            QString::number(attributeCount()),
            QStringLiteral("--trips"),
            QString::number(trips)};
}

QString BenchOptions::usage() {
    return QStringLiteral("usage: qtro-bench updates|latency|initial [--seconds S] "
                          "[--attributes N] [--trips N] [--json]");
}

bool BenchOptions::parse(const QStringList& args, BenchOptions& options, QString& error) {
    for (int i = 0; i < args.size(); ++i) {
        const QString& word = args[i];
        const bool hasValue = i + 1 < args.size();
        bool ok = true;
        if (word == QLatin1String("--json")) {
            options.json = true;
        } else if (word == QLatin1String("--seconds") && hasValue) {
            options.seconds = args[++i].toDouble(&ok);
            ok = ok && options.seconds > 0;
        } else if (word == QLatin1String("--attributes") && hasValue) {
            options.attributes = args[++i].toInt(&ok);
            ok = ok && options.attributes > 0;
        } else if (word == QLatin1String("--trips") && hasValue) {
            options.trips = args[++i].toInt(&ok);
            ok = ok && options.trips > 0;
        } else if (word == QLatin1String("--peer") && hasValue) {
            options.peer = args[++i];
        } else if (!word.startsWith(QLatin1String("--")) && options.workload.isEmpty()) {
            options.workload = word;
        } else {
            error = QStringLiteral("unexpected argument '%1'").arg(word);
            return false;
        }
        if (!ok) {
            error = QStringLiteral("%1 needs a positive number, not '%2'").arg(word, args[i]);
            return false;
        }
    }
    if (!Workloads.contains(options.workload)) {
        error = options.workload.isEmpty()
                    ? QStringLiteral("a workload is needed")
                    : QStringLiteral("unknown workload '%1'").arg(options.workload);
        return false;
    }
    return true;
}

} // namespace QtroBench
