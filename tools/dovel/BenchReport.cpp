#include "BenchReport.h"

#include "CommandLine.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace DovelTool {

void BenchReport::add(const QString& workload, const QString& metric, double value,
                      const QString& unit) {
    items.append(Figure{workload, metric, value, unit});
}

void BenchReport::target(const QString& workload, const QString& metric, const QString& goal,
                         bool met) {
    targets.append(Target{workload, metric, goal, met});
}

int BenchReport::readJsonLines(const QByteArray& text) {
    int added = 0;
    for (const QByteArray& line : text.split('\n')) {
        const QJsonDocument document = QJsonDocument::fromJson(line.trimmed());
        if (!document.isObject())
            continue;
        const QJsonObject object = document.object();
        if (!object.value("workload").isString() || !object.value("metric").isString() ||
            !object.value("value").isDouble() || !object.value("unit").isString())
            continue;
        add(object.value("workload").toString(), object.value("metric").toString(),
            object.value("value").toDouble(), object.value("unit").toString());
        ++added;
    }
    return added;
}

double BenchReport::value(const QString& workload, const QString& metric, double fallback) const {
    for (const Figure& figure : items)
        if (figure.workload == workload && figure.metric == metric)
            return figure.value;
    return fallback;
}

bool BenchReport::has(const QString& workload, const QString& metric) const {
    for (const Figure& figure : items)
        if (figure.workload == workload && figure.metric == metric)
            return true;
    return false;
}

QByteArray BenchReport::jsonLine(const Figure& figure) {
    QJsonObject object;
    object.insert("workload", figure.workload);
    object.insert("metric", figure.metric);
    // JSON has no infinities or NaN; a figure that could not be measured is 0.
    object.insert("value", std::isfinite(figure.value) ? figure.value : 0.0);
    object.insert("unit", figure.unit);
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray BenchReport::json() const {
    QByteArray text;
    for (const Figure& figure : items)
        text += jsonLine(figure);
    for (const Target& target : targets)
        text += jsonLine(Figure{target.workload, target.metric, target.met ? 1.0 : 0.0, "met"});
    return text;
}

namespace {

QString number(double value) {
    if (value != 0 && std::fabs(value) < 10)
        return QString::number(value, 'f', 3);
    if (std::fabs(value) < 1000)
        return QString::number(value, 'f', 1);
    return QLocale(QLocale::English).toString(value, 'f', 0);
}

} // namespace

QByteArray BenchReport::table() const {
    QByteArray text;
    int width = 0;
    for (const Figure& figure : items)
        width = qMax(width, figure.workload.size() + figure.metric.size() + 1);
    for (const Figure& figure : items)
        text += QStringLiteral("%1  %2 %3\n")
                    .arg(figure.workload + QLatin1Char(' ') + figure.metric, -width)
                    .arg(number(figure.value), 14)
                    .arg(figure.unit)
                    .toUtf8();
    if (!targets.isEmpty())
        text += '\n';
    for (const Target& target : targets)
        text += QStringLiteral("target %1 %2: %3\n")
                    .arg(target.workload, target.goal, target.met ? "met" : "MISSED")
                    .toUtf8();
    return text;
}

void BenchReport::print(bool asJson) const {
    CommandLine::print(asJson ? json() : table());
}

} // namespace DovelTool
