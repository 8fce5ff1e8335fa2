#include "BenchReport.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

#include <cmath>
#include <cstdio>

namespace QtroBench {

void BenchReport::add(const QString& workload, const QString& metric, double value,
                      const QString& unit) {
    figures.append(Figure{workload, metric, value, unit});
}

int BenchReport::readJsonLines(const QByteArray& text) {
    int added = 0;
    for (const QByteArray& line : text.split('\n')) {
        const QJsonDocument document = QJsonDocument::fromJson(line.trimmed());
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

bool BenchReport::has(const QString& metric) const {
    for (const Figure& figure : figures)
        if (figure.metric == metric)
            return true;
    return false;
}

QByteArray BenchReport::json() const {
    QByteArray text;
    for (const Figure& figure : figures) {
        QJsonObject object;
        object.insert("workload", figure.workload);
        object.insert("metric", figure.metric);
        // JSON has no infinities or NaN: a figure that could not be measured is 0.
        object.insert("value", std::isfinite(figure.value) ? figure.value : 0.0);
        object.insert("unit", figure.unit);
        text += QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
    }
    return text;
}

QByteArray BenchReport::table() const {
    int width = 0;
    for (const Figure& figure : figures)
        width = qMax(width, figure.workload.size() + figure.metric.size() + 1);
    QByteArray text;
    for (const Figure& figure : figures) {
        const double value = figure.value;
        const QString number = std::fabs(value) >= 1000
                                   ? QLocale(QLocale::English).toString(value, 'f', 0)
                                   : QString::number(value, 'f', std::fabs(value) < 10 ? 3 : 1);
        text += QStringLiteral("%1  %2 %3\n")
                    .arg(figure.workload + QLatin1Char(' ') + figure.metric, -width)
                    .arg(number, 14)
                    .arg(figure.unit)
                    .toUtf8();
    }
    return text;
}

void BenchReport::print(bool asJson) const {
    const QByteArray text = asJson ? json() : table();
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    std::fflush(stdout);
}

} // namespace QtroBench
