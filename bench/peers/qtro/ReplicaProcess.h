// The replica side of a run: a copy of this program started with --peer. Keeps what it
// prints on standard output (its figures as JSON lines); its standard error goes to ours.
// Main thread only.
#pragma once

#include "BenchOptions.h"

#include <QByteArray>
#include <QObject>
#include <QProcess>

namespace QtroBench {

class ReplicaProcess : public QObject {
    Q_OBJECT
public:
    ReplicaProcess();
    // Kills the replica if it still runs.
    ~ReplicaProcess() override;

    // Starts the replica of `options` against `hostUrl`; false (with a note) if it won't.
    bool start(const BenchOptions& options, const QString& hostUrl);
    // Waits up to `ms` for the replica to end; true when it ended with status 0.
    bool waitForExit(int ms);
    QByteArray output() const { return printed; }

signals:
    // The replica ended, with status 0 or not, before waitForExit() was called.
    void ended(const QString& how);

private:
    QString exitText() const;

    QProcess process;
    QByteArray printed;
    bool waiting = false;
};

} // namespace QtroBench
