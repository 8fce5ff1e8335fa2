// The figures of one `dovel bench` run: each is a workload, a metric, a value and a
// unit. Printed as a table for people, or with --json as one JSON object per line per
// figure ({"workload": W, "metric": M, "value": number, "unit": U}) for scripts. Targets
// are checks of figures against the goals the benchmark states; the table shows
// whether each is met, the JSON as a figure with the unit "met" (1 met, 0 missed).
//
// Peer processes print their own figures as JSON lines; readJsonLines() takes them in.
// Not thread-safe; the command's main thread owns it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

namespace DovelTool {

class BenchReport {
public:
    struct Figure {
        QString workload;
        QString metric;
        double value = 0;
        QString unit;
    };
    struct Target {
        QString workload;
        QString metric; // a name for the JSON figure, as "target_changes_per_second"
        QString goal;   // what is asked, for the table: ">= 3,000,000 changes/s"
        bool met = false;
    };

    void add(const QString& workload, const QString& metric, double value, const QString& unit);
    void target(const QString& workload, const QString& metric, const QString& goal, bool met);
    // The figures of another process: every line that is a figure object is added;
    // other lines are ignored. Returns the number added.
    int readJsonLines(const QByteArray& text);

    const QVector<Figure>& figures() const { return items; }
    // The value of the first figure of this workload and metric, or `fallback`.
    double value(const QString& workload, const QString& metric, double fallback = 0) const;
    bool has(const QString& workload, const QString& metric) const;

    // One JSON object per line per figure, then one per target.
    QByteArray json() const;
    // A table of the figures and a line per target.
    QByteArray table() const;
    // json() or table() on standard output.
    void print(bool asJson) const;

    // The figure as one JSON line, for a peer process that reports as it goes.
    static QByteArray jsonLine(const Figure& figure);

private:
    QVector<Figure> items;
    QVector<Target> targets;
};

} // namespace DovelTool
