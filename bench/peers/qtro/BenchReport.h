// The figures of one run: a workload, a metric, a value and a unit each. Printed as a
// table for people or, with --json, as one JSON object per line per figure for the
// benchmark script. The replica prints its figures as JSON lines as well and the
// source reads them back with readJsonLines().
// Not thread-safe; the main thread owns it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

namespace QtroBench {

class BenchReport {
public:
    struct Figure {
        QString workload;
        QString metric;
        double value = 0;
        QString unit;
    };

    void add(const QString& workload, const QString& metric, double value, const QString& unit);
    // Adds every line of `text` that is a figure object; returns how many.
    int readJsonLines(const QByteArray& text);
    bool has(const QString& metric) const;

    QByteArray json() const;
    QByteArray table() const;
    // json() or table() on standard output.
    void print(bool asJson) const;

private:
    QVector<Figure> figures;
};

} // namespace QtroBench
