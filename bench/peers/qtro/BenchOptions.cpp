#include "BenchOptions.h"

#include <QCommandLineOption>
#include <QCommandLineParser>

#include <type_traits>

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
    QCommandLineParser parser;
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("JSON lines"));
    const QCommandLineOption seconds(QStringLiteral("seconds"), QString(), QStringLiteral("S"));
    const QCommandLineOption attributes(QStringLiteral("attributes"), QString(),
                                        QStringLiteral("N"));
    const QCommandLineOption trips(QStringLiteral("trips"), QString(), QStringLiteral("N"));
    const QCommandLineOption peer(QStringLiteral("peer"), QString(), QStringLiteral("URL"));
    parser.addOptions({json, seconds, attributes, trips, peer});
    if (!parser.parse(QStringList{QStringLiteral("qtro-bench")} + args)) {
        error = parser.errorText();
        return false;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1) {
        error = QStringLiteral("unexpected argument '%1'").arg(positional.at(1));
        return false;
    }
    options.workload = positional.value(0);
    options.json = parser.isSet(json);
    options.peer = parser.value(peer);
    // A positive number, or the option's default when it is absent.
    const auto positive = [&](const QCommandLineOption& option, auto& target) {
        if (!parser.isSet(option))
            return true;
        bool ok = false;
        const double number = parser.value(option).toDouble(&ok);
        if (!ok || number <= 0) {
            error = QStringLiteral("--%1 needs a positive number, not '%2'")
                        .arg(option.names().first(), parser.value(option));
            return false;
        }
        target = static_cast<std::remove_reference_t<decltype(target)>>(number);
        return true;
    };
    if (!positive(seconds, options.seconds) || !positive(attributes, options.attributes) ||
        !positive(trips, options.trips))
        return false;
    if (!Workloads.contains(options.workload)) {
        error = options.workload.isEmpty()
                    ? QStringLiteral("a workload is needed")
                    : QStringLiteral("unknown workload '%1'").arg(options.workload);
        return false;
    }
    return true;
}

} // namespace QtroBench
